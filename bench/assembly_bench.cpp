// Frame assembly against what it cannot avoid: one copy, or one unpacking, of every row.
#include "report.h"
#include "rig.h"

#include "drv/usb/badpix.h"
#include "drv/usb/debug.h"
#include "drv/usb/frame.h"

#include <cstring>
#include <memory>

namespace {
constexpr char kModule[] = "bench/assembly";

__attribute__((noinline)) void printOnce(int value)
{
    DebugPrint("value=%d \n", value);
}

__attribute__((noinline)) void emptyCall(int value)
{
    asm volatile("" : : "r"(value) : "memory");
}
} // namespace

namespace bench {
namespace {

struct Piece {
    const UCHAR *source;
    std::size_t length;
    std::size_t target;
};

// Where in the blocks the pixels of each row lie: in one piece, or in two where a block ends inside the row.
std::vector<Piece> rowPieces(const Geometry &geometry, BlockStream &blocks)
{
    std::vector<Piece> pieces;
    const std::size_t stride = geometry.lineBytes() + 4;
    for (ULONG row = 0; row < geometry.height; ++row) {
        std::size_t at = row * stride + 4;
        std::size_t left = geometry.lineBytes();
        std::size_t target = std::size_t{row} * geometry.width;
        while (left > 0) {
            const std::size_t block = at / kStreamBlockSize;
            const std::size_t inside = at % kStreamBlockSize;
            const std::size_t length = std::min(left, kStreamBlockSize - inside);
            pieces.push_back({blocks.data(block) + inside, length, target});
            at += length;
            target += length;
            left -= length;
        }
    }
    return pieces;
}

void addRows(unsigned number, const Geometry &geometry)
{
    auto camera = std::make_shared<Camera>(number, geometry);
    auto blocks = std::make_shared<BlockStream>(geometry);
    const std::string size = std::to_string(geometry.width) + "x" + std::to_string(geometry.height);

    const bool eight = geometry.bits == 8;
    Measurement rows(std::string(eight ? "rows_8bit_" : "rows_10bit_") + size, eight ? "GB/s" : "ns/pixel",
                     static_cast<double>(eight ? geometry.imageBytes() : geometry.pixels()));
    rows.value = [camera, blocks] {
        for (std::size_t i = 0; i < blocks->count(); ++i) {
            ProcessFrameBlock(camera->ext(), blocks->data(i), blocks->size(i));
        }
    };
    if (eight) {
        auto pieces = std::make_shared<std::vector<Piece>>(rowPieces(geometry, *blocks));
        rows.limit = [camera, pieces, turn = 0u]() mutable {
            UCHAR *image = camera->ext()->Frame[turn++ % kFrameBuffers] + kFrameHeaderSize;
            for (const Piece &piece : *pieces) {
                std::memcpy(image + piece.target, piece.source, piece.length);
            }
        };
    } else {
        // A row that a block's end cuts in two cannot be unpacked where it lies: it comes from an uncut stream.
        auto stream = std::make_shared<std::vector<std::uint8_t>>(makeStream(geometry));
        rows.limit = [camera, blocks, stream, geometry, turn = 0u]() mutable {
            auto *image = reinterpret_cast<USHORT *>(camera->ext()->Frame[turn++ % kFrameBuffers] + kFrameHeaderSize);
            std::size_t at = 4;
            for (ULONG line = 0; line < geometry.height; ++line, at += geometry.lineBytes() + 4) {
                const std::size_t inside = at % kStreamBlockSize;
                const bool whole = inside + geometry.lineBytes() <= kStreamBlockSize;
                const UCHAR *row = whole ? blocks->data(at / kStreamBlockSize) + inside : stream->data() + at;
                Unpack10Bit(row, image + std::size_t{line} * geometry.width, geometry.lineBytes());
            }
        };
    }
    add(std::move(rows));
}

void addUnpack()
{
    const Geometry geometry{2048, 16, 10};
    auto source = std::make_shared<std::vector<UCHAR>>(geometry.height * geometry.lineBytes(), UCHAR{0x5B});
    auto target = std::make_shared<std::vector<USHORT>>(geometry.pixels());
    Measurement unpack("unpack_10bit", "ns/pixel", static_cast<double>(geometry.pixels()));
    unpack.value = [source, target] {
        Unpack10Bit(source->data(), target->data(), static_cast<ULONG>(source->size()));
        asm volatile("" : : "r"(target->data()) : "memory");
    };
    unpack.limit = [target] {
        std::memset(target->data(), 0x3F, target->size() * sizeof(USHORT));
        asm volatile("" : : "r"(target->data()) : "memory");
    };
    add(std::move(unpack));
}

void addResync(unsigned number, const std::string &name, std::vector<std::uint8_t> bytes)
{
    auto camera = std::make_shared<Camera>(number, Geometry{1280, 1024, 8});
    auto blocks = std::make_shared<BlockStream>(bytes);
    auto copy = std::make_shared<std::vector<UCHAR>>(bytes.size());
    Measurement resync(name, "GB/s", static_cast<double>(bytes.size()));
    resync.value = [camera, blocks] { ProcessFrameBlock(camera->ext(), blocks->data(0), blocks->size(0)); };
    resync.limit = [blocks, copy] {
        std::memcpy(copy->data(), blocks->data(0), copy->size());
        asm volatile("" : : "r"(copy->data()) : "memory");
    };
    add(std::move(resync));
}

std::vector<std::uint8_t> garbage()
{
    std::mt19937_64 random(7);
    std::vector<std::uint8_t> bytes(kStreamBlockSize);
    for (std::uint8_t &byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    for (std::size_t i = 1; i < bytes.size(); ++i) {
        if (bytes[i - 1] == 0xA5 && bytes[i] == 0x3C) {
            bytes[i] = 0x3D;
        }
    }
    return bytes;
}

} // namespace

void addAssembly()
{
    addRows(0, {1280, 1024, 8});
    addRows(1, {2048, 1536, 8});
    addRows(2, {1280, 1024, 10});
    addRows(3, {2048, 1536, 10});
    addUnpack();
    addResync(4, "resync_garbage", garbage());
    addResync(5, "resync_a5", std::vector<std::uint8_t>(kStreamBlockSize, 0xA5));

    machine().trace().enable(false);
    Measurement print("print_filtered", "ns", 1000);
    print.value = [] {
        for (int i = 0; i < 1000; ++i) {
            printOnce(i);
        }
    };
    print.limit = [] {
        for (int i = 0; i < 1000; ++i) {
            emptyCall(i);
        }
    };
    add(std::move(print));
}

} // namespace bench
