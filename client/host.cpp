#include "client/host.h"

namespace vqt {

std::string TraceRecord::line() const
{
    std::string line = error ? "ERROR! " : "";
    if (!module.empty())
        line += module + ", " + routine + "() : ";
    line += text;
    while (!line.empty() && (line.back() == '\n' || line.back() == ' '))
        line.pop_back();
    return line;
}

} // namespace vqt
