// A configuration descriptor as a camera sent it, checked whole before anybody parses it.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::size_t kConfigurationHeader = 9; // bytes of the configuration descriptor proper

// Every descriptor names its own length and the first one the length of all. True when the lengths agree with the bytes
// that arrived, no descriptor reaches out of them, those of the kinds that are read have their full size, and no
// interface promises more endpoints than follow it.
constexpr bool IsSoundConfiguration(const std::uint8_t *Bytes, std::size_t Received)
{
    constexpr std::uint8_t kConfiguration = 2, kInterface = 4, kEndpoint = 5;
    constexpr std::size_t kInterfaceSize = 9, kEndpointSize = 7;

    if (Received < kConfigurationHeader || Bytes[0] < kConfigurationHeader || Bytes[1] != kConfiguration) {
        return false;
    }
    const std::size_t Total = Bytes[2] | (static_cast<std::size_t>(Bytes[3]) << 8);
    if (Total != Received) {
        return false;
    }
    unsigned EndpointsMissing = 0;
    for (std::size_t At = 0; At < Total;) {
        if (Total - At < 2 || Bytes[At] < 2 || Bytes[At] > Total - At) {
            return false;
        }
        if (Bytes[At + 1] == kInterface) {
            if (Bytes[At] < kInterfaceSize || EndpointsMissing != 0) {
                return false;
            }
            EndpointsMissing = Bytes[At + 4];
        } else if (Bytes[At + 1] == kEndpoint) {
            if (Bytes[At] < kEndpointSize) {
                return false;
            }
            EndpointsMissing -= EndpointsMissing != 0 ? 1u : 0u;
        }
        At += Bytes[At];
    }
    return EndpointsMissing == 0;
}

namespace descriptor_cases {

constexpr std::uint8_t kGood[] = {9, 2, 25, 0, 1, 1, 0, 0x80, 250, 9, 4, 0, 0, 1, 255, 0, 0, 0, 7, 5, 0x82, 2, 0, 2, 0};

template <std::size_t Index, std::uint8_t Value> constexpr bool SoundWith()
{
    std::uint8_t Copy[sizeof(kGood)] = {};
    for (std::size_t I = 0; I < sizeof(kGood); ++I) {
        Copy[I] = I == Index ? Value : kGood[I];
    }
    return IsSoundConfiguration(Copy, sizeof(Copy));
}

static_assert(IsSoundConfiguration(kGood, sizeof(kGood)));
static_assert(!IsSoundConfiguration(kGood, 8) && !IsSoundConfiguration(kGood, sizeof(kGood) - 1));
static_assert(!SoundWith<2, 24>() && !SoundWith<2, 26>() && !SoundWith<3, 1>(), "total length");
static_assert(!SoundWith<9, 0>() && !SoundWith<9, 1>() && !SoundWith<9, 8>() && !SoundWith<9, 17>(), "lengths");
static_assert(!SoundWith<18, 6>() && !SoundWith<18, 8>() && !SoundWith<13, 2>(), "endpoints");
static_assert(SoundWith<13, 0>() && SoundWith<19, 0x21>() == false);

} // namespace descriptor_cases
