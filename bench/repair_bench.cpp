// Repair against the bare arithmetic: the neighbours' mean with the neighbours known, or reading and writing the lines.
#include "report.h"
#include "rig.h"

#include "drv/usb/badpix.h"

#include <bit>
#include <memory>
#include <set>

namespace bench {
namespace {

constexpr Geometry kFull{2048, 1536, 8};
constexpr int kDx[8] = {-1, 0, 1, -1, 1, -1, 0, 1};
constexpr int kDy[8] = {-1, -1, -1, 0, 0, 1, 1, 1};

std::vector<BADPIX_RECORD> singles(std::size_t count)
{
    std::mt19937_64 random(count);
    std::set<std::pair<unsigned, unsigned>> places;
    std::vector<BADPIX_RECORD> records;
    while (records.size() < count) {
        const auto x = static_cast<USHORT>(2 + random() % (kFull.width - 4));
        const auto y = static_cast<USHORT>(2 + random() % (kFull.height - 4));
        if (places.insert({x, y}).second) {
            records.push_back({x, y, 0, 0xFF});
        }
    }
    return records;
}

// A defect whose neighbours are known: what is left is the mean.
struct Known {
    std::uint32_t pixel;
    std::uint32_t count;
    std::int32_t offsets[8];
};

std::vector<Known> know(const std::vector<BADPIX_RECORD> &records)
{
    std::vector<Known> known;
    for (const BADPIX_RECORD &record : records) {
        Known one{record.BpY * kFull.width + record.BpX, 0, {}};
        for (unsigned bit = 0; bit < 8; ++bit) {
            if (record.BpPosMask >> bit & 1) {
                one.offsets[one.count++] = kDy[bit] * static_cast<int>(kFull.width) + kDx[bit];
            }
        }
        known.push_back(one);
    }
    return known;
}

template <typename Sample> void bareMean(Sample *image, const std::vector<Known> &known)
{
    for (const Known &one : known) {
        Sample *pixel = image + one.pixel;
        std::uint32_t sum = one.count / 2;
        for (std::uint32_t i = 0; i < one.count; ++i) {
            sum += pixel[one.offsets[i]];
        }
        *pixel = static_cast<Sample>(sum / one.count);
    }
}

template <typename Sample> void addSingles(unsigned number, std::size_t count, const std::string &suffix)
{
    auto camera = std::make_shared<Camera>(number, Geometry{kFull.width, kFull.height, sizeof(Sample) == 1 ? 8u : 10u});
    camera->setDefects(singles(count));
    AnalizeBadPix(camera->device());
    auto image = std::make_shared<std::vector<Sample>>(kFull.pixels());
    std::mt19937_64 random(3);
    for (Sample &sample : *image) {
        sample = static_cast<Sample>(random() % 256);
    }
    auto known = std::make_shared<std::vector<Known>>(
        know({camera->ext()->BadPix, camera->ext()->BadPix + camera->ext()->BadPixNum}));

    Measurement repair("repair_" + std::to_string(count) + suffix, "ns/defect", static_cast<double>(count));
    repair.value = [camera, image] {
        if constexpr (sizeof(Sample) == 1) {
            FixBadPix8(camera->device(), image->data());
        } else {
            FixBadPix10(camera->device(), image->data());
        }
    };
    repair.limit = [image, known] { bareMean(image->data(), *known); };
    add(std::move(repair));
}

void addLines(unsigned number)
{
    auto camera = std::make_shared<Camera>(number, kFull);
    std::vector<BADPIX_RECORD> records;
    for (USHORT i = 1; i <= 4; ++i) {
        records.push_back({static_cast<USHORT>(i * 400), 0, 3, 0});
        records.push_back({0, static_cast<USHORT>(i * 300), 3, 0});
    }
    camera->setDefects(records);
    auto image = std::make_shared<std::vector<UCHAR>>(kFull.pixels(), UCHAR{100});
    Measurement lines("repair_lines", "us");
    lines.value = [camera, image] { FixBadPix8(camera->device(), image->data()); };
    lines.limit = [image] {
        for (std::size_t i = 1; i <= 4; ++i) {
            for (std::size_t y = 0; y < kFull.height; ++y) {
                volatile UCHAR &pixel = (*image)[y * kFull.width + i * 400];
                pixel = pixel;
            }
            for (std::size_t x = 0; x < kFull.width; ++x) {
                volatile UCHAR &pixel = (*image)[i * 300 * kFull.width + x];
                pixel = pixel;
            }
        }
    };
    add(std::move(lines));
}

} // namespace

void addRepair()
{
    addSingles<UCHAR>(10, 1000, "");
    addSingles<UCHAR>(11, 6000, "");
    addSingles<USHORT>(12, 1000, "_10bit");
    addSingles<USHORT>(13, 6000, "_10bit");
    addLines(14);

    auto camera = std::make_shared<Camera>(15, kFull);
    camera->setDefects(singles(6553));
    Measurement masks("masks_6553", "ms");
    masks.value = [camera] { AnalizeBadPix(camera->device()); };
    add(std::move(masks));
}

} // namespace bench
