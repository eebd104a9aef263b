// Usage: usbcam_bench [filter] [json file]. The numbers only report: nothing here passes or fails.
#include "report.h"

#include <sched.h>

#include <cstdio>
#include <string>

namespace bench {
void addAssembly();
void addRepair();
void addRequests();
void addStream();
} // namespace bench

int main(int argc, char **argv)
{
    cpu_set_t one;
    CPU_ZERO(&one);
    const int cpu = sched_getcpu();
    CPU_SET(cpu < 0 ? 0 : cpu, &one);
    if (sched_setaffinity(0, sizeof(one), &one) != 0) {
        std::perror("bench: cannot pin a core, going on without");
    }
    bench::addAssembly();
    bench::addRepair();
    bench::addRequests();
    bench::addStream();
    return bench::run(argc > 1 ? argv[1] : "", argc > 2 ? argv[2] : "build/bench.json");
}
