#include "frame_scan.h"

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define USBCAM_SSE2 1
#else
#define USBCAM_SSE2 0
#endif

SIZE_T SearchSignaturePlain(const UCHAR *Data, SIZE_T Size)
{
    if (Size < 2) {
        return 0;
    }
    for (SIZE_T Offset = 0; Offset + 1 < Size; ++Offset) {
        if (IsSignature(Data + Offset)) {
            return Offset;
        }
    }
    return Size - 1;
}

#if USBCAM_SSE2

namespace {

// Both bytes are compared at every position, so that pixels that look like half a signature cost nothing more.
inline __m128i Matches(const UCHAR *Data)
{
    const __m128i Here = _mm_loadu_si128(reinterpret_cast<const __m128i *>(Data));
    const __m128i Next = _mm_loadu_si128(reinterpret_cast<const __m128i *>(Data + 1));
    return _mm_and_si128(_mm_cmpeq_epi8(Here, _mm_set1_epi8(static_cast<char>(kSignature0))),
                         _mm_cmpeq_epi8(Next, _mm_set1_epi8(static_cast<char>(kSignature1))));
}

} // namespace

SIZE_T SearchSignature(const UCHAR *Data, SIZE_T Size)
{
    constexpr SIZE_T kStep = 64;
    SIZE_T Offset = 0;
    // The plain search finishes the last bytes, and finds the exact place inside a step that has one.
    for (; Offset + kStep < Size; Offset += kStep) {
        const UCHAR *Step = Data + Offset;
        const __m128i Any = _mm_or_si128(_mm_or_si128(Matches(Step), Matches(Step + 16)),
                                         _mm_or_si128(Matches(Step + 32), Matches(Step + 48)));
        if (_mm_movemask_epi8(Any) != 0) {
            break;
        }
    }
    return Offset + SearchSignaturePlain(Data + Offset, Size - Offset);
}

#else

SIZE_T SearchSignature(const UCHAR *Data, SIZE_T Size)
{
    return SearchSignaturePlain(Data, Size);
}

#endif
