// --sim and --fault.
#include "exit_codes.h"
#include "sim_options.h"

#include <gtest/gtest.h>

namespace {

TEST(Sim, WrongWordsAreNamed)
{
    const struct {
        bool fault; // --fault, else --sim
        const char *text, *word;
    } cases[] = {
        {false, "model=4", "1 to 3"},
        {false, "model", "1 to 3"},
        {false, "model=1x", "1 to 3"},
        {false, "color,gray", "gray"},
        {false, "pace=-1", "pace"},
        {false, "pace=4294967296", "pace"},
        {false, "defects=6554", "6553"},
        {false, "defects=6553,row=5", "6553"},
        {false, "row=0", "1 to"},
        {false, "row=1024,model=1", "1024"},
        {false, "model=1,,mono", "understood"},
        {false, "chip=0x", "chip"},
        {false, "model=99999999999999999999", "1 to 3"},
        {true, "break:frame=1,line=1", "break"},
        {true, "lose:line=1", "frame=N"},
        {true, "lose:frame=0,line=1", "1 to"},
        {true, "lose:frame=1,line=8192", "8191"},
        {true, "lose:frame=1,line=1,value=3", "value"},
        {true, "number:frame=1,line=1", "value=V"},
        {true, "garbage:frame=1,line=1,value=65537", "65536"},
        {true, "lose:frame=1,line=1,camera=64", "camera"},
    };
    for (const auto &row : cases) {
        try {
            if (row.fault)
                parseSimFault(row.text);
            else
                parseSimCamera(row.text);
            ADD_FAILURE() << "accepted " << row.text;
        } catch (const Stop &stop) {
            EXPECT_EQ(stop.code, Exit::usage) << row.text;
            const std::string message = stop.what();
            EXPECT_NE(message.find(row.word), std::string::npos) << message;
            EXPECT_NE(message.find(row.text), std::string::npos) << message;
        }
    }
}

} // namespace
