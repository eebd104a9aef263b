// The fuzzer's bytes, taken one value at a time; zeros when there are no more.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

class Input {
public:
    Input(const std::uint8_t *data, std::size_t size) : bytes_(data, size) {}
    explicit Input(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    bool empty() const { return bytes_.empty(); }
    std::size_t left() const { return bytes_.size(); }
    std::uint8_t byte()
    {
        if (bytes_.empty())
            return 0;
        const std::uint8_t value = bytes_[0];
        bytes_ = bytes_.subspan(1);
        return value;
    }
    std::uint16_t word()
    {
        const unsigned low = byte();
        return static_cast<std::uint16_t>(low | static_cast<unsigned>(byte()) << 8);
    }
    std::uint32_t dword()
    {
        const std::uint32_t low = word();
        return low | static_cast<std::uint32_t>(word()) << 16;
    }
    // At most count bytes.
    std::span<const std::uint8_t> take(std::size_t count)
    {
        const auto taken = bytes_.first(count < bytes_.size() ? count : bytes_.size());
        bytes_ = bytes_.subspan(taken.size());
        return taken;
    }

private:
    std::span<const std::uint8_t> bytes_;
};

// A condition that no input may break.
inline void require(bool holds, const char *what)
{
    if (!holds) {
        std::fprintf(stderr, "fuzz: %s\n", what);
        std::abort();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);
