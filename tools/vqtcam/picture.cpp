#include "picture.h"

#include <algorithm>
#include <stdexcept>

namespace {

enum Channel : unsigned { red, green, blue };

Channel colourAt(std::uint32_t x, std::uint32_t y, MosaicPhase phase)
{
    const bool oddX = ((x + phase.x) & 1) != 0, oddY = ((y + phase.y) & 1) != 0;
    return oddX == oddY ? (oddX ? blue : red) : green;
}

void checkSameForm(const vqt::Image &a, const vqt::Image &b)
{
    if (a.width != b.width || a.height != b.height || a.bits != b.bits)
        throw std::invalid_argument("pictures of different size or depth cannot be compared");
}

} // namespace

MosaicPhase MosaicPhase::of(const vqt::Geometry &geometry)
{
    const auto parity = [](std::int32_t start, bool mirrored) {
        return (static_cast<unsigned>(start) + (mirrored ? 1u : 0u)) & 1u;
    };
    return {parity(geometry.startX, geometry.flipX), parity(geometry.startY, geometry.flipY)};
}

Picture grey(const vqt::Image &image)
{
    Picture picture{image.width, image.height, 1, image.maximum(), {}};
    picture.samples.resize(std::size_t{image.width} * image.height);
    for (std::size_t i = 0; i < picture.samples.size(); ++i)
        picture.samples[i] = image.bits == 8
                                 ? image.data[i]
                                 : static_cast<std::uint16_t>(image.data[2 * i] | image.data[2 * i + 1] << 8);
    return picture;
}

// Bilinear: a missing component is the mean of the pixels of that colour among the eight around it. Samples stay as
// they are.
Picture demosaic(const vqt::Image &image, MosaicPhase phase)
{
    const Picture mosaic = grey(image);
    Picture picture{image.width, image.height, 3, mosaic.maximum, {}};
    picture.samples.resize(mosaic.samples.size() * 3);
    for (std::uint32_t y = 0; y < picture.height; ++y) {
        const std::uint32_t top = y == 0 ? 0 : y - 1, bottom = std::min(y + 1, picture.height - 1);
        for (std::uint32_t x = 0; x < picture.width; ++x) {
            const std::uint32_t left = x == 0 ? 0 : x - 1, right = std::min(x + 1, picture.width - 1);
            unsigned sum[3] = {}, count[3] = {};
            for (std::uint32_t ny = top; ny <= bottom; ++ny)
                for (std::uint32_t nx = left; nx <= right; ++nx) {
                    const Channel colour = colourAt(nx, ny, phase);
                    sum[colour] += mosaic.samples[std::size_t{ny} * picture.width + nx];
                    ++count[colour];
                }
            const std::size_t place = std::size_t{y} * picture.width + x;
            for (unsigned channel = 0; channel < 3; ++channel)
                picture.samples[place * 3 + channel] = static_cast<std::uint16_t>(
                    count[channel] == 0 ? 0 : (sum[channel] + count[channel] / 2) / count[channel]);
            picture.samples[place * 3 + colourAt(x, y, phase)] = mosaic.samples[place];
        }
    }
    return picture;
}

Picture difference(const vqt::Image &a, const vqt::Image &b, unsigned gain)
{
    checkSameForm(a, b);
    const Picture first = grey(a), second = grey(b);
    Picture picture = first;
    for (std::size_t i = 0; i < picture.samples.size(); ++i) {
        const int distance = std::abs(int{first.samples[i]} - int{second.samples[i]});
        picture.samples[i] = static_cast<std::uint16_t>(
            std::min<std::uint64_t>(picture.maximum, std::uint64_t{gain} * static_cast<unsigned>(distance)));
    }
    return picture;
}

DifferenceCount countDifferences(const vqt::Image &a, const vqt::Image &b)
{
    DifferenceCount count;
    std::uint64_t sum = 0;
    for (const std::uint16_t distance : difference(a, b, 1).samples) {
        count.pixels += distance != 0 ? 1 : 0;
        count.largest = std::max<unsigned>(count.largest, distance);
        sum += distance;
    }
    count.mean = count.pixels == 0 ? 0 : static_cast<double>(sum) / static_cast<double>(count.pixels);
    return count;
}
