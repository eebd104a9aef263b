// Assembly: what each fault of a stream costs, how blocks may be cut, what a change of the window does in the middle of
// it all, and streams made to break it; the conversion of a capture; the fast forms against the plain ones.

#include "assembly.h"

#include "drv/usb/frame_scan.h"
#include "drv/usb/frame_unpack.h"

#include <atomic>
#include <random>
#include <thread>

namespace usbtest {
namespace {

class FrameTest : public KernelTest {};

std::string must(unsigned expected, unsigned found)
{
    return "Must be lineno=" + std::to_string(expected) + ", found lineno=" + std::to_string(found) + "\n";
}

std::string incorrect(unsigned found, unsigned height)
{
    return "Incorrect lineno=" + std::to_string(found) + " > " + std::to_string(height) + "=frame height\n";
}

TEST_F(FrameTest, EachFaultCostsWhatItMust)
{
    const auto check = [&](const char *name, const Stream &stream, const Lines &frames, const Lines &errors,
                           unsigned height = 6, unsigned bufferBytes = 0, unsigned width = 16) {
        SCOPED_TRACE(name);
        Assembly assembly(machine, width, height, 8, bufferBytes);
        // Line 0 of a following frame and the start of its line 1, so that what is before is complete.
        assembly.feed(Stream(stream).line(0, 9).header(1).bytes);
        Lines delivered;
        std::uint32_t resyncs = 0;
        for (const Delivered &frame : assembly.delivered) {
            delivered.push_back(frame.summary());
            resyncs += frame.header.Resyncs;
        }
        EXPECT_EQ(delivered, frames);
        EXPECT_EQ(assembly.errors, errors);
        EXPECT_EQ(assembly.ext->Resyncs, resyncs);
        EXPECT_EQ(assembly.ext->TotalFrames, frames.size());
        EXPECT_TRUE(assembly.guardsIntact());
    };
    const std::string empty = "#0 size 0 resyncs 0 flags 0", whole = "#1 size 96 resyncs 0 flags 0";
    const auto from = [](unsigned first, unsigned last) { return Stream(16).lines(first, last); };

    check("none", from(0, 5), {empty, whole}, {});
    check("begins in the middle", from(2, 5).lines(0, 5), {"#0 size 64 resyncs 1 flags 0", whole}, {must(0, 2)});
    check("three lines lost, one by one", from(0, 0).line(2).line(4), {empty, "#1 size 48 resyncs 3 flags 0"},
          {must(1, 2), must(3, 4), must(5, 0)});
    check("half signatures", from(0, 2).garbage(9, 0xA5).raw({0x3D, 0x3C, 0xA5}).lines(3, 5), {empty, whole}, {});
    check("a signature in skipped pixels that names a line",
          from(0, 2).raw({0xA5, 0x3D, 3, 0}).header(3).garbage(12).lines(4, 5), {empty, "#1 size 80 resyncs 1 flags 0"},
          {must(4, 5)});
    // Line 3 is lost: the change of tag on line 4 is counted on top of line 2's flags, and so is the one on line 3,
    // which comes too late and completes the frame.
    check("changes of the tag", from(0, 1).line(0x8002).line(0x4004).line(0xC003, 1).header(4),
          {empty, "#1 size 64 resyncs 2 flags 4"}, {must(3, 4), must(5, 3)});
    // Lines that a window names but no buffer holds count as lines beyond the frame.
    check("a window larger than the buffer", from(0, 5), {empty, "#1 size 48 resyncs 3 flags 0"},
          {incorrect(3, 100), incorrect(4, 100), incorrect(5, 100)}, 100, 16 * 3);
    check("more lines than a header has room for", from(0, 0).line(1535).line(1536),
          {empty, "#1 size 32 resyncs 2 flags 0"}, {must(1, 1535), incorrect(1536, 8000)}, 8000);
    // No sensor has lines like this; a window that was set before a sensor was known could.
    check("a tail too long", Stream(5000), {}, {"Size=5008 > sizeof(buffer) \n"}, 2, 0, 6000);
}

// A stream with something of everything: health, garbage, a lost line, a wrong number, signatures inside pixels.
Stream eventfulStream()
{
    Stream stream(8);
    stream.garbage(3).lines(0, 3, 1).garbage(5, 0xA5).line(0, 2).line(1, 2).line(3, 2).header(9).lines(0, 1, 3);
    stream.header(2).raw({0xA5, 0x3C, 0xA5, 0xA5, 0x3C, 1, 0, 0xA5}).raw({0x3C}).line(3, 3);
    stream.lines(0, 3, 4).line(0, 5).header(1);
    return stream;
}

std::vector<Delivered> framesOf(ntos::Machine &machine, const Bytes &stream, const std::vector<std::size_t> &cuts)
{
    Assembly assembly(machine, 8, 4, 8);
    std::size_t from = 0;
    for (const std::size_t cut : cuts) {
        assembly.feed({stream.data() + from, cut - from});
        from = cut;
    }
    assembly.feed({stream.data() + from, stream.size() - from});
    EXPECT_TRUE(assembly.guardsIntact());
    return assembly.delivered;
}

TEST_F(FrameTest, BlocksCutAnywhereGiveTheSameFrames)
{
    const Bytes stream = eventfulStream().bytes;
    const std::vector<Delivered> whole = framesOf(machine, stream, {});
    ASSERT_EQ(whole.size(), 5u);
    std::vector<std::vector<std::size_t>> cuttings;
    for (std::size_t cut = 0; cut <= stream.size(); ++cut)
        cuttings.push_back({cut});
    for (std::size_t every : {1, 2, 3, 5, 11, 12, 13}) {
        cuttings.emplace_back();
        for (std::size_t cut = every; cut < stream.size(); cut += every)
            cuttings.back().push_back(cut);
    }
    for (const std::vector<std::size_t> &cuts : cuttings)
        ASSERT_TRUE(framesOf(machine, stream, cuts) == whole) << "cut at " << cuts[0] << ", " << cuts.size() << " cuts";
}

// Requests change the window and look at the newest frame while blocks are parsed.
TEST_F(FrameTest, RequestsMeanwhile)
{
    Assembly assembly(machine, 32, 8, 8);
    assembly.silence();
    std::atomic<bool> done{false};
    std::thread requests([&] {
        for (unsigned turn = 0; !done; ++turn) {
            WriteOnce(assembly.ext->Width, turn % 2 ? 32 : 16);
            WriteOnce(assembly.ext->Height, turn % 3 ? 8 : 4);
            WriteOnce(assembly.ext->BitsPerPixel, turn % 5 ? 8 : 10);
            const PUCHAR ready = ReadOnce(assembly.ext->FrameReadyPtr);
            ASSERT_TRUE(ready == nullptr || std::ranges::count(assembly.ext->Frame, ready) == 1);
            InterlockedExchange(reinterpret_cast<LONG *>(&assembly.ext->TotalFrames), 0);
        }
    });
    const Bytes stream = Stream(32).lines(0, 7, 1).lines(0, 7, 2).bytes;
    for (unsigned block = 0; block < 2000; ++block)
        assembly.feed(stream);
    done = true;
    requests.join();
    EXPECT_TRUE(assembly.guardsIntact());
}

// Random windows, depths and streams that are nearly right: nothing outside the buffers is read or written, whatever is
// parsed, and a window that comes in the middle of it all has healthy frames as soon as the camera has it.
TEST_F(FrameTest, HostileStreams)
{
    std::mt19937 random(20260117);
    const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
    constexpr unsigned kWindows[] = {0, 1, 4, 7, 8, 16, 20, 500, 1535, 2048, 4097, 0x10000, 0x7FFFFFFF, 0xFFFFFFFF};
    const Bytes healthy = Stream(8).lines(0, 3, 3).lines(0, 3, 4).line(0, 5).header(1).bytes;
    const Delivered last = framesOf(machine, healthy, {}).back();
    for (unsigned round = 0; round < 400; ++round) {
        Assembly assembly(machine, 16, 6, 8, 32 + below(5000));
        assembly.silence();
        for (unsigned block = 0; block < 12; ++block) {
            if (below(3) == 0)
                WriteOnce(assembly.ext->Width, kWindows[below(std::size(kWindows))]);
            if (below(3) == 0)
                WriteOnce(assembly.ext->Height, kWindows[below(std::size(kWindows))]);
            if (below(4) == 0)
                WriteOnce(assembly.ext->BitsPerPixel, below(3) == 0 ? below(64) : 8 + 2 * below(2));
            Stream stream(below(40));
            for (unsigned item = below(60); item != 0; --item) {
                const unsigned kind = below(5);
                if (kind == 0)
                    stream.garbage(below(30), static_cast<std::uint8_t>(below(2) ? 0xA5 : random()));
                else if (kind == 1)
                    stream.header(below(0x10000));
                else
                    stream.line(below(8) == 0 ? below(0x10000) : below(8));
            }
            assembly.feed(stream.bytes);
            ASSERT_LE(assembly.ext->SavedLen, kSavedTailSize);
            ASSERT_LT(assembly.ext->CurFrame, kFrameBuffers);
        }
        WriteOnce(assembly.ext->Width, 8);
        WriteOnce(assembly.ext->Height, 4);
        WriteOnce(assembly.ext->BitsPerPixel, 8);
        assembly.feed(healthy);
        assembly.feed(healthy);
        const PUCHAR ready = assembly.ext->FrameReadyPtr;
        ASSERT_EQ(reinterpret_cast<const FRAME_HEADER *>(ready)->Resyncs, 0u) << "round " << round;
        ASSERT_TRUE(std::ranges::equal(std::span(ready + kFrameHeaderSize, last.image.size()), last.image));
        ASSERT_TRUE(assembly.guardsIntact()) << "round " << round;
    }
}

// ------------------------------------------------------------------------------------------------ captured streams

TEST_F(FrameTest, ACapturedStreamBecomesAnImage)
{
    const struct {
        const char *name;
        Stream stream;
        std::string rows; // a letter a row: '.' untouched, 'A' + frame, '?' begun
        ULONG size;
        ULONG left; // bytes that the last message counts
    } cases[] = {
        {"nothing", Stream(8), "....", 0, 0},
        {"one byte", Stream(8).garbage(1), "....", 0, 1},
        {"garbage around it", Stream(8).garbage(3).lines(0, 3, 0).garbage(9), "AAAA", 32, 1},
        {"lines in any order, none missed", Stream(8).line(2).line(0).line(3), "A.AA", 24, 0},
        {"a line twice: the later one counts", Stream(8).line(1, 0).line(1, 1), ".B..", 16, 0},
        {"more lines than the image", Stream(8).lines(0, 3, 0).lines(0, 3, 1).lines(0, 3, 2), "CCCC", 32, 0},
        {"a number beyond the image", Stream(8).line(4).line(0), "A...", 8, 0},
        {"flag bits make the number another one", Stream(8).line(0x2001).line(0), "A...", 8, 0},
        {"ends in the middle of a line", Stream(8).line(0).line(1).drop(5), "A?..", 11, 0},
        {"ends behind a header", Stream(8).line(0).header(1), "A...", 8, 0},
        {"ends inside a header", Stream(8).line(0).header(1).drop(1), "A...", 8, 3},
    };
    machine.trace().enable(true);
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        // A record of which the conversion reads the window alone.
        const auto ext = std::make_unique<DEVICE_EXTENSION>();
        ext->Width = 8;
        ext->Height = 4;
        ext->BitsPerPixel = 8;
        Bytes image(32, 0xEE);
        ULONG size = 0xDEAD;
        const std::uint64_t mark = machine.trace().mark();
        const Bytes &stream = test.stream.bytes;
        checkSignature(ext.get(), stream.data(), static_cast<ULONG>(stream.size()), image.data(), &size);
        EXPECT_EQ(size, test.size);
        EXPECT_TRUE(machine.trace().contains("Too small buffer, size=" + std::to_string(test.left) + " \n", mark));
        for (unsigned at = 0; at < 32; ++at) {
            const char row = test.rows[at / 8];
            const bool there = row == '?' ? at < test.size : row != '.';
            const unsigned frame = row == '?' ? 0 : static_cast<unsigned>(row - 'A');
            EXPECT_EQ(image[at], there ? pixelByte(frame, at / 8, at % 8) : 0xEE) << at;
        }
    }
}

// --------------------------------------------------- fast forms: no byte read or written that is not theirs

TEST(Unpack, FastEqualsPlain)
{
    std::mt19937 random(1);
    for (ULONG count = 0; count <= 135; ++count) {
        for (ULONG alignment = 0; alignment < 16; ++alignment) {
            // Memory that ends with the last byte: the address sanitizer sees a read behind it.
            const auto exact = std::make_unique<std::uint8_t[]>(alignment + count);
            std::uint8_t *bytes = exact.get() + alignment;
            std::generate_n(bytes, count, [&] { return static_cast<std::uint8_t>(random()); });
            // Between samples that must not change.
            std::vector<USHORT> fast(alignment + count / 10 * 8 + 32, 0xE7E7), plain = fast;
            Unpack10Bit(bytes, fast.data() + alignment, count);
            Unpack10BitPlain(bytes, plain.data() + alignment, count);
            ASSERT_EQ(fast, plain) << count << ' ' << alignment;
        }
    }
}

TEST(Scan, FastEqualsPlain)
{
    std::mt19937 random(2);
    constexpr std::uint8_t kBytes[] = {0xA5, 0x3C, 0xA5, 0x00};
    for (std::size_t size = 0; size <= 200; ++size) {
        for (unsigned turn = 0; turn < 40; ++turn) {
            const std::size_t alignment = random() % 16;
            const auto exact = std::make_unique<std::uint8_t[]>(alignment + size);
            std::uint8_t *bytes = exact.get() + alignment;
            // From saturated with the first byte, with signatures rare, to dense with them.
            const unsigned kinds = 1 + turn % 4;
            std::generate_n(bytes, size, [&] { return kBytes[random() % 16 < kinds ? random() % 4 : 0]; });
            const std::size_t expected = SearchSignaturePlain(bytes, size);
            ASSERT_EQ(SearchSignature(bytes, size), expected) << size;
            ASSERT_EQ(FindSignature(bytes, size), expected) << size;
        }
    }
}

} // namespace
} // namespace usbtest
