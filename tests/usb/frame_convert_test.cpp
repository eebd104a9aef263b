// A captured stream becomes an image.

#include "assembly.h"

namespace usbtest {
namespace {

struct ConvertCase {
    const char *name;
    Stream stream;
    std::string rows; // a letter a row: '.' untouched, 'A' + frame, '?' begun
    ULONG size;
    ULONG left; // bytes that the last message counts
};

class ConvertTest : public KernelTest {};

TEST_F(ConvertTest, EightBits)
{
    const ConvertCase cases[] = {
        {"nothing", Stream(8), "....", 0, 0},
        {"one byte", Stream(8).garbage(1), "....", 0, 1},
        {"garbage around it", Stream(8).garbage(3).lines(0, 3, 0).garbage(9), "AAAA", 32, 1},
        {"lines in any order, none missed", Stream(8).line(2).line(0).line(3), "A.AA", 24, 0},
        {"a line twice: the later one counts", Stream(8).line(1, 0).line(1, 1), ".B..", 16, 0},
        {"more lines than the image", Stream(8).lines(0, 3, 0).lines(0, 3, 1).lines(0, 3, 2), "CCCC", 32, 0},
        {"a number beyond the image", Stream(8).line(4).line(0), "A...", 8, 0},
        {"flag bits make the number another one", Stream(8).line(0x2001).line(0), "A...", 8, 0},
        {"ends in the middle of a line", Stream(8).line(0).line(1).drop(5), "A?..", 11, 0},
        {"ends behind a header", Stream(8).line(0).header(1), "A...", 8, 0},
        {"ends inside a header", Stream(8).line(0).header(1).drop(1), "A...", 8, 3},
    };
    machine.trace().enable(true);
    for (const ConvertCase &test : cases) {
        SCOPED_TRACE(test.name);
        // A record of which the conversion reads the window alone.
        const auto ext = std::make_unique<DEVICE_EXTENSION>();
        ext->Width = 8;
        ext->Height = 4;
        ext->BitsPerPixel = 8;
        Bytes image(32, 0xEE);
        ULONG size = 0xDEAD;
        const std::uint64_t mark = machine.trace().mark();
        const Bytes &stream = test.stream.bytes;
        checkSignature(ext.get(), stream.data(), static_cast<ULONG>(stream.size()), image.data(), &size);
        EXPECT_EQ(size, test.size);
        EXPECT_TRUE(machine.trace().contains("Too small buffer, size=" + std::to_string(test.left) + " \n", mark));
        for (unsigned at = 0; at < 32; ++at) {
            const char row = test.rows[at / 8];
            const bool there = row == '?' ? at < test.size : row != '.';
            const unsigned frame = row == '?' ? 0 : static_cast<unsigned>(row - 'A');
            EXPECT_EQ(image[at], there ? pixelByte(frame, at / 8, at % 8) : 0xEE) << at;
        }
    }
}

} // namespace
} // namespace usbtest
