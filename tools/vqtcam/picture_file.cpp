#include "picture_file.h"

#include "client/bay.h"
#include "exit_codes.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <fstream>
#include <memory>

#define STBI_NO_STDIO
#include <stb_image.h>
// Part of the library's interface, though its header declares it only beside its code.
extern "C" unsigned char *stbi_zlib_compress(unsigned char *data, int length, int *outLength, int quality);

namespace {

constexpr int kCompression = 5;

constexpr std::array<std::uint32_t, 256> crcTable()
{
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t n = 0; n < 256; ++n) {
        std::uint32_t c = n;
        for (int k = 0; k < 8; ++k)
            c = (c & 1) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        table[n] = c;
    }
    return table;
}
constexpr auto kCrc = crcTable();
static_assert(kCrc[1] == 0x77073096u && kCrc[255] == 0x2D02EF8Du);

void putBig32(std::vector<std::uint8_t> &out, std::uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<std::uint8_t>(value >> shift));
}

void putChunk(std::vector<std::uint8_t> &out, const char *type, std::span<const std::uint8_t> data)
{
    putBig32(out, static_cast<std::uint32_t>(data.size()));
    const std::size_t start = out.size();
    out.insert(out.end(), type, type + 4);
    out.insert(out.end(), data.begin(), data.end());
    std::uint32_t crc = 0xFFFFFFFFu;
    for (std::size_t i = start; i < out.size(); ++i)
        crc = kCrc[(crc ^ out[i]) & 0xFF] ^ (crc >> 8);
    putBig32(out, ~crc);
}

// Each row behind its filter byte: the neighbour to the left or the one above, whichever leaves less.
std::vector<std::uint8_t> filteredRows(const std::vector<std::uint8_t> &pixels, std::size_t rowBytes,
                                       std::size_t pixelBytes)
{
    std::vector<std::uint8_t> out;
    out.reserve(pixels.size() + pixels.size() / std::max<std::size_t>(rowBytes, 1));
    std::vector<std::uint8_t> sub(rowBytes), up(rowBytes);
    const auto cost = [](const std::vector<std::uint8_t> &row) {
        std::uint64_t sum = 0;
        for (const std::uint8_t byte : row)
            sum += byte < 128 ? byte : 256u - byte;
        return sum;
    };
    for (std::size_t row = 0; row + rowBytes <= pixels.size() && rowBytes != 0; row += rowBytes) {
        for (std::size_t i = 0; i < rowBytes; ++i) {
            const std::uint8_t left = i < pixelBytes ? std::uint8_t{0} : pixels[row + i - pixelBytes];
            const std::uint8_t above = row == 0 ? std::uint8_t{0} : pixels[row + i - rowBytes];
            sub[i] = static_cast<std::uint8_t>(pixels[row + i] - left);
            up[i] = static_cast<std::uint8_t>(pixels[row + i] - above);
        }
        const bool takeUp = cost(up) < cost(sub);
        out.push_back(takeUp ? 2 : 1);
        const auto &best = takeUp ? up : sub;
        out.insert(out.end(), best.begin(), best.end());
    }
    return out;
}

std::string systemError()
{
    return std::strerror(errno);
}

} // namespace

std::vector<std::uint8_t> encodePng(const Picture &picture)
{
    const bool wide = picture.maximum > 255;
    const std::size_t pixelBytes = picture.channels * (wide ? 2u : 1u);
    std::vector<std::uint8_t> pixels;
    pixels.reserve(picture.samples.size() * (wide ? 2 : 1));
    for (const std::uint16_t sample : picture.samples) {
        const unsigned spread = wide ? unsigned{sample} << 6 | unsigned{sample} >> 4 : sample;
        if (wide)
            pixels.push_back(static_cast<std::uint8_t>(spread >> 8));
        pixels.push_back(static_cast<std::uint8_t>(spread));
    }
    auto rows = filteredRows(pixels, picture.width * pixelBytes, pixelBytes);
    int packedSize = 0;
    const std::unique_ptr<unsigned char, void (*)(void *)> packed(
        stbi_zlib_compress(rows.data(), static_cast<int>(rows.size()), &packedSize, kCompression), std::free);
    if (!packed)
        throw Stop(Exit::file, "not enough memory to pack a picture");

    std::vector<std::uint8_t> file{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    std::vector<std::uint8_t> head;
    putBig32(head, picture.width);
    putBig32(head, picture.height);
    const std::uint8_t depth = wide ? 16 : 8, colour = picture.channels == 3 ? 2 : 0;
    head.insert(head.end(), {depth, colour, 0, 0, 0});
    putChunk(file, "IHDR", head);
    if (wide)
        putChunk(file, "sBIT", std::vector<std::uint8_t>(picture.channels, 10));
    putChunk(file, "IDAT", {packed.get(), static_cast<std::size_t>(packedSize)});
    putChunk(file, "IEND", {});
    return file;
}

std::vector<std::uint8_t> encodePnm(const Picture &picture)
{
    const std::string head =
        fmt::format("P{}\n{} {}\n{}\n", picture.channels == 3 ? 6 : 5, picture.width, picture.height, picture.maximum);
    std::vector<std::uint8_t> file(head.begin(), head.end());
    for (const std::uint16_t sample : picture.samples) {
        if (picture.maximum > 255)
            file.push_back(static_cast<std::uint8_t>(sample >> 8));
        file.push_back(static_cast<std::uint8_t>(sample));
    }
    return file;
}

Picture decodePng(std::span<const std::uint8_t> file)
{
    int width = 0, height = 0, channels = 0;
    const int size = static_cast<int>(file.size());
    const std::unique_ptr<stbi_us, void (*)(void *)> samples(
        stbi_load_16_from_memory(file.data(), size, &width, &height, &channels, 0), stbi_image_free);
    if (!samples)
        throw Stop(Exit::file, fmt::format("not a PNG file: {}", stbi_failure_reason()));
    const bool wide = stbi_is_16_bit_from_memory(file.data(), size) != 0;
    Picture picture{static_cast<std::uint32_t>(width),
                    static_cast<std::uint32_t>(height),
                    static_cast<unsigned>(channels),
                    static_cast<std::uint16_t>(wide ? 1023 : 255),
                    {}};
    const std::size_t count = std::size_t{picture.width} * picture.height * picture.channels;
    picture.samples.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
        picture.samples.push_back(static_cast<std::uint16_t>(samples.get()[i] >> (wide ? 6 : 8)));
    return picture;
}

void writeFile(const std::filesystem::path &path, std::span<const std::uint8_t> bytes)
{
    std::error_code ignored; // the open below says what is wrong
    if (path.has_parent_path())
        std::filesystem::create_directories(path.parent_path(), ignored);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    file.close();
    if (!file)
        throw Stop(Exit::file,
                   fmt::format("cannot write {}: {}; choose another place with --out", path.string(), systemError()));
}

namespace {

// A name that was given with the extension keeps it as it is.
std::filesystem::path withExtension(const std::string &stem, const char *extension)
{
    return stem.ends_with(extension) ? stem : stem + extension;
}

} // namespace

std::filesystem::path savePicture(const Picture &picture, const std::string &stem, PictureFormat format)
{
    const bool png = format == PictureFormat::png;
    const std::filesystem::path path =
        withExtension(stem, png ? ".png" : picture.channels == 3 ? ".ppm" : ".pgm");
    writeFile(path, png ? encodePng(picture) : encodePnm(picture));
    return path;
}

std::filesystem::path saveImage(const vqt::Image &image, MosaicPhase phase, const std::string &stem,
                                PictureFormat format, bool keepMosaic)
{
    if (format == PictureFormat::raw) {
        const std::filesystem::path path = withExtension(stem, ".raw");
        writeFile(path, image.data);
        return path;
    }
    return savePicture(image.mono || keepMosaic ? grey(image) : demosaic(image, phase), stem, format);
}

ScenePicture loadScene(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw Stop(Exit::file, fmt::format("cannot read the scene {}: {}", path.string(), systemError()));
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const auto *data = reinterpret_cast<const stbi_uc *>(bytes.data());
    const int size = static_cast<int>(std::min<std::size_t>(bytes.size(), 1u << 30));
    int width = 0, height = 0, channels = 0;
    if (stbi_info_from_memory(data, size, &width, &height, &channels) == 0)
        throw Stop(Exit::file, fmt::format("the scene {} is no JPEG, PNG, BMP or PNM picture ({}); convert it",
                                           path.string(), stbi_failure_reason()));
    constexpr int side = simbus::kMaxSceneSide;
    if (width > side || height > side)
        throw Stop(Exit::file, fmt::format("the scene {} has {} x {} pixels; scale it down to at most {} a side",
                                           path.string(), width, height, side));
    const std::unique_ptr<stbi_uc, void (*)(void *)> pixels(
        stbi_load_from_memory(data, size, &width, &height, &channels, 3), stbi_image_free);
    if (!pixels)
        throw Stop(Exit::file, fmt::format("the scene {} cannot be decoded: {}", path.string(), stbi_failure_reason()));
    ScenePicture scene{static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height), {}};
    scene.rgb.assign(pixels.get(), pixels.get() + std::size_t{scene.width} * scene.height * 3);
    return scene;
}
