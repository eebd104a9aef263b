// One line a measurement: its value beside the limit it is held against, both from the same run.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace bench {

// What is measured. `value` and `limit` do the same amount of work per call and are called in turns, repetition by
// repetition, so that whatever else the machine does falls on both.
struct Measurement {
    Measurement(std::string name_, std::string unit_, double perCall_ = 1)
        : name(std::move(name_)), unit(std::move(unit_)), perCall(perCall_)
    {
    }

    std::string name;
    std::string unit;                      // of value and limit: "GB/s", "ns/pixel", "ms", "%"
    double perCall;                        // units of work in a call: bytes for GB/s, else what the time is divided by
    std::function<void()> value;
    std::function<void()> limit;           // none: nothing to hold it against
    std::function<double()> seconds;       // instead of value: runs once and returns the seconds that count
    std::function<double()> limitSeconds;
};

// A measurement that is not a time per call, made by its own procedure.
struct Ready {
    std::string name;
    std::string unit;
    double value = 0;
    double limit = 0;                      // 0: none
};

void add(Measurement measurement);
void add(std::function<std::vector<Ready>()> procedure);

// Runs everything whose name contains the filter, prints "name value unit limit ratio" lines to stdout and writes the
// same as a list of objects to the file. Returns 0, or 2 when the file cannot be written.
int run(const std::string &filter, const std::string &jsonPath);

} // namespace bench
