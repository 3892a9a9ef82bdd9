// The cost of gathering the unit's record and of single answers about an interface, beside
// getifaddrs, which asks the kernel for every interface at once.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include <string>

#include "bench/quiet.h"
#include "common/net_info.h"
#include "common/unit_info.h"

namespace {

// A machine that lacks a file of the unit, a route or an address says so; its figure holds for what
// it has.
void Tell(benchmark::State &state, int result) {
    state.SetLabel(result == 0 ? "everything found"
                               : std::to_string(-result) + " items not found on this machine");
}

void Record(benchmark::State &state, const char *pIfName) {
    int result = 0;
    {
        const Quiet quiet;
        tUnitNetInfo unit;
        for (auto _ : state) {
            result = COM_GetUnitNetInfo(&unit, pIfName);
            benchmark::DoNotOptimize(unit);
        }
    }
    Tell(state, result);
}

void ComGetUnitNetInfoNamed(benchmark::State &state) {
    char name[16] = "lo";
    {
        const Quiet quiet;
        COM_GetDefaultRoute(name);
    }
    Record(state, name);
}
BENCHMARK(ComGetUnitNetInfoNamed);

void ComGetUnitNetInfoOfDefaultRoute(benchmark::State &state) {
    Record(state, nullptr);
}
BENCHMARK(ComGetUnitNetInfoOfDefaultRoute);

void OneItem(benchmark::State &state, uint32_t flag) {
    int result = 0;
    {
        const Quiet quiet;
        char out[18];
        for (auto _ : state) {
            result = COM_GetNetInfo(flag, "lo", out);
            benchmark::DoNotOptimize(out);
        }
    }
    Tell(state, result);
}
BENCHMARK_CAPTURE(OneItem, hardwareAddress, 4);
BENCHMARK_CAPTURE(OneItem, address, 20);
BENCHMARK_CAPTURE(OneItem, gateway, 31);
BENCHMARK_CAPTURE(OneItem, nameServer, 35);
BENCHMARK_CAPTURE(OneItem, mtu, 43);

void Getifaddrs(benchmark::State &state) {
    for (auto _ : state) {
        ifaddrs *list = nullptr;
        if (getifaddrs(&list) != 0) {
            state.SkipWithError("getifaddrs");
            break;
        }
        benchmark::DoNotOptimize(list);
        freeifaddrs(list);
    }
}
BENCHMARK(Getifaddrs);

}  // namespace
