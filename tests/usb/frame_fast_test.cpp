// The fast forms against the plain ones: every length, every alignment, no byte read or written that is not theirs.

#include "drv/usb/frame_scan.h"
#include "drv/usb/frame_unpack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

namespace {

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
