#include "client/image.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace vqt {

unsigned lostLines(const FRAME_HEADER &header)
{
    constexpr std::uint8_t kNextFollows = 1;
    const std::size_t lines = std::min<std::size_t>(header.Height, std::size(header.LineStatus));
    unsigned lost = 0;
    for (std::size_t line = 0; line < lines; ++line) {
        if (header.LineStatus[line] != 0)
            continue;
        // Nothing says that line 0 is on its way; but had it come before a line 1 that came, it would carry the mark.
        const bool announced =
            line > 0 ? (header.LineStatus[line - 1] & kNextFollows) != 0 : lines == 1 || header.LineStatus[1] == 0;
        if (!announced)
            ++lost;
    }
    return lost;
}

std::optional<Frame> FrameView::copy(bool mono) const
{
    Frame frame;
    frame.header = *header;
    std::atomic_thread_fence(std::memory_order_acquire);
    frame.image = {frame.header.Width, frame.header.Height, frame.header.BitsPerPixel, mono, {}};
    frame.image.data.assign(pixels.begin(), pixels.end());
    std::atomic_thread_fence(std::memory_order_acquire);
    if (frame.header.ImageSize != pixels.size() || frame.image.size() != pixels.size() ||
        std::memcmp(header, &frame.header, sizeof frame.header) != 0)
        return std::nullopt;
    return frame;
}

} // namespace vqt
