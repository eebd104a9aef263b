#include "frame_unpack.h"

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define USBCAM_SSE2 1
#else
#define USBCAM_SSE2 0
#endif

void Unpack10BitPlain(const UCHAR *Src, PUSHORT Dst, ULONG Count)
{
    for (ULONG Groups = Count / kPackedGroup; Groups != 0; --Groups) {
        const unsigned Low = Src[8] | static_cast<unsigned>(Src[9]) << 8;
        for (unsigned Pixel = 0; Pixel < kGroupPixels; ++Pixel) {
            Dst[Pixel] = static_cast<USHORT>((Src[Pixel] << 2) + ((Low >> (2 * Pixel)) & 3));
        }
        Src += kPackedGroup;
        Dst += kGroupPixels;
    }
}

#if USBCAM_SSE2

namespace {

// One group. Multiplying the word by 2^(14 - 2k) in lane k brings the pair of bits of pixel k to the top of its lane.
// Both loads stay inside the ten bytes.
inline void UnpackGroup(const UCHAR *Src, PUSHORT Dst)
{
    const __m128i Shift = _mm_setr_epi16(1 << 14, 1 << 12, 1 << 10, 1 << 8, 1 << 6, 1 << 4, 1 << 2, 1);
    const __m128i High = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(Src));
    __m128i Low = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(Src + 2));
    Low = _mm_shufflelo_epi16(Low, _MM_SHUFFLE(3, 3, 3, 3));
    Low = _mm_unpacklo_epi64(Low, Low);
    Low = _mm_srli_epi16(_mm_mullo_epi16(Low, Shift), 14);
    const __m128i Samples = _mm_or_si128(_mm_slli_epi16(_mm_unpacklo_epi8(High, _mm_setzero_si128()), 2), Low);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(Dst), Samples);
}

} // namespace

void Unpack10Bit(const UCHAR *Src, PUSHORT Dst, ULONG Count)
{
    ULONG Groups = Count / kPackedGroup;
    for (; Groups >= 4; Groups -= 4) {
        UnpackGroup(Src, Dst);
        UnpackGroup(Src + kPackedGroup, Dst + kGroupPixels);
        UnpackGroup(Src + 2 * kPackedGroup, Dst + 2 * kGroupPixels);
        UnpackGroup(Src + 3 * kPackedGroup, Dst + 3 * kGroupPixels);
        Src += 4 * kPackedGroup;
        Dst += 4 * kGroupPixels;
    }
    for (; Groups != 0; --Groups) {
        UnpackGroup(Src, Dst);
        Src += kPackedGroup;
        Dst += kGroupPixels;
    }
}

#else

void Unpack10Bit(const UCHAR *Src, PUSHORT Dst, ULONG Count)
{
    Unpack10BitPlain(Src, Dst, Count);
}

#endif
