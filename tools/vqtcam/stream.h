// A running stream: started here, stopped at its end.
#pragma once

#include "client/camera.h"

class Stream {
public:
    explicit Stream(vqt::Camera &camera, bool mapped = false)
        : camera_(camera), mapped_(mapped), mono_(camera.getFrameParameters().value().mono()),
          buffer_(kFrameHeaderSize + camera.imageSize().value())
    {
        camera.start().value();
    }
    ~Stream()
    {
        // The stop may fail when the camera was unplugged meanwhile; the request that noticed it has been reported.
        (void)camera_.stop().ok();
    }
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;

    // The first frame of a stream is what lay before its first line: an empty one, number 0.
    vqt::Frame next()
    {
        for (;;) {
            std::optional<vqt::Frame> frame =
                mapped_ ? camera_.getFramePtr().value().copy(mono_) : camera_.grab(buffer_, mono_).value();
            if (frame && frame->header.FrameNumber != 0)
                return *std::move(frame);
        }
    }

private:
    vqt::Camera &camera_;
    bool mapped_, mono_;
    std::vector<std::uint8_t> buffer_;
};
