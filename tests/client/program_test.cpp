// The program from outside: exit codes, and what stands on stdout.
#include "picture_file.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class Vqtcam : public ::testing::Test {
protected:
    Vqtcam() : folder_(std::filesystem::temp_directory_path() / ("test_vqtcam-" + std::to_string(getpid())))
    {
        std::filesystem::create_directories(folder_);
    }
    ~Vqtcam() override
    {
        std::filesystem::remove_all(folder_);
    }

    struct Outcome {
        int code = -1;
        std::string out, err;
    };
    Outcome run(const std::string &arguments) const
    {
        const std::string errors = (folder_ / "stderr").string();
        const std::string line =
            "cd '" + folder_.string() + "' && " VQTCAM_PROGRAM " " + arguments + " 2>'" + errors + "'";
        Outcome outcome;
        FILE *pipe = popen(line.c_str(), "r");
        std::array<char, 4096> buffer;
        for (std::size_t size; (size = fread(buffer.data(), 1, buffer.size(), pipe)) != 0;)
            outcome.out.append(buffer.data(), size);
        const int status = pclose(pipe);
        outcome.code = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
        std::ifstream file(errors);
        outcome.err.assign(std::istreambuf_iterator<char>(file), {});
        return outcome;
    }
    std::vector<std::uint8_t> read(const std::string &name) const
    {
        std::ifstream file(folder_ / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::filesystem::path folder_;
};

TEST_F(Vqtcam, ExitCodesAndResults)
{
    struct Case {
        const char *arguments;
        int code;
        const char *out, *err; // a part of each
    };
    const Case cases[] = {
        {"--help", 0, "Exit codes", ""},
        {"dance", 2, "", "--help"},
        {"grab --sim model=9", 2, "", "model is a number from 1 to 3"},
        {"list --fault lose:frame=1,line=1,camera=2", 2, "", "names camera 2 of 2"},
        {"list", 0, "VQT-42R3C", "2 cameras"},
        {"list --sim model=2,colour,serial=77", 0, "VQT-42R2C              77", "1 camera\n"},
        {"info --sim model=1,mono,firmware=33", 0, "33 (8 bits only)", ""},
        {"info -c 5", 3, "", "list the cameras that are plugged in"},
        {"trace --module usb/camera", 0, "*** VQT-42R1M", ""},
        {"events --sim model=1,usb1", 0, "0x80050002 warning", "1 event"},
        {"command 0x12 --sim model=1,mono,serial=258", 0, "1C 00 07 00 02 01 00 00", "16 bytes"},
        {"register read 0 0x1E --sim model=3", 0, "0x00 0x1621 5665", ""},
        {"pipe reset 1", 1, "", "only pipe 2"},
        {"snapshot --external --timeout 1 --width 64 --height 16", 5, "", "trigger"},
        {"snapshot --trigger --sim model=3,mono --width 64 --height 16", 0, "64x16, 8 bits, external trigger", ""},
        // A slow reader misses frames, so every frame carries the faults.
        {"grab -n 4 --no-files --width 128 --height 64 --sim model=1,mono,pace=1000000"
         " --fault lose:frame=all,line=17 --fault lose:frame=all,line=40",
         0, "4 frames, 8 lost lines", ""},
        {"pipe read 4096 -o stream.raw", 0, "4096 bytes of the stream: A5 3C", ""},
        {"grab --sim model=1,firmware=33 --bits 10", 1, "", "one pixel depth"},
        {"grab --decimation 3 --sim model=1", 1, "", "model 3 only"},
        {"list --scene missing.jpg", 4, "", "missing.jpg"},
        {"grab --width 64 --height 16 --out stderr/below", 4, "", "--out"},
    };
    for (const Case &c : cases) {
        const Outcome outcome = run(c.arguments);
        EXPECT_EQ(outcome.code, c.code) << c.arguments << "\n" << outcome.out << outcome.err;
        EXPECT_NE(outcome.out.find(c.out), std::string::npos) << c.arguments << "\n" << outcome.out;
        EXPECT_NE(outcome.err.find(c.err), std::string::npos) << c.arguments << "\n" << outcome.err;
    }
}

TEST_F(Vqtcam, EveryFormatHoldsTheSameSamples)
{
    for (const char *format : {"png", "pnm", "raw"})
        ASSERT_EQ(
            run(std::string("snapshot --sim model=1,mono --bits 10 --width 64 --height 16 -o one --format ") + format)
                .code,
            0);
    const Picture picture = decodePng(read("one.png"));
    EXPECT_EQ(picture.maximum, 1023);
    EXPECT_EQ(encodePnm(picture), read("one.pgm"));
    const auto raw = read("one.raw");
    ASSERT_EQ(picture.samples.size(), 64u * 16);
    ASSERT_EQ(raw.size(), 2 * picture.samples.size());
    for (std::size_t i = 0; i < picture.samples.size(); ++i)
        ASSERT_EQ(raw[2 * i] | raw[2 * i + 1] << 8, picture.samples[i]) << i;
}

TEST_F(Vqtcam, BadPixelsAreRepairedStreamedAndCaptured)
{
    for (const std::string how : {"mono", "colour --captured"}) {
        SCOPED_TRACE(how);
        const Outcome outcome = run("badpixels --sim model=1,flat=500,defects=300,row=400,column=600," + how);
        ASSERT_EQ(outcome.code, 0) << outcome.err;
        EXPECT_NE(outcome.out.find("302 bad pixels"), std::string::npos) << outcome.out;
        const Picture before = decodePng(read("badpixels-before-difference.png"));
        const Picture after = decodePng(read("badpixels-after-difference.png"));
        unsigned differBefore = 0, nearLine = 0, elsewhere = 0;
        for (std::uint32_t y = 0; y < before.height; ++y)
            for (std::uint32_t x = 0; x < before.width; ++x) {
                differBefore += before.at(x, y) != 0;
                // On a flat scene a repaired pixel is right again, unless it was mended from a line's pixel.
                if (after.at(x, y) != 0)
                    ++((x >= 598 && x <= 602) || (y >= 398 && y <= 402) ? nearLine : elsewhere);
            }
        EXPECT_GE(differBefore, 1280u + 1024 - 1 + 290);
        EXPECT_LE(nearLine, 10u) << outcome.out;
        EXPECT_EQ(elsewhere, 0u) << outcome.out;
    }
}

} // namespace
