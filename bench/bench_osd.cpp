// The OSD business's periodic work and its parameter intake, against a floor: the same two
// overlay messages of a cycle built with one snprintf and one memcpy each into a stack buffer
// and handed to the same bus send. The gap between a cycle and the floor is what the
// business's way of building costs (text buffers, the std::string hop, the heap record, the
// date formatting in two parts, its log lines); the bus send is in both.
//
// Logging: the level is -1, but the stand-in formats every line before it looks at the level
// (what the device's SDK does there is not known), so the business's two level-3 lines per
// cycle are still formatted. They are measured as they are; BM_StandinLogLine shows what one
// such line costs on its own.
//
// The stand-in's bus keeps a copy of every message sent: the runs empty it every
// kClearEvery iterations, outside the timing.
#include <string.h>

#include <vector>

#include <benchmark/benchmark.h>

#include "JQ_LOG.h"
#include "OsdBenchSupport.h"

namespace {

const int64_t kClearEvery = 4096;

void Quiet() {
    nvx::SetLogLevel(-1);
}

// Empties the bus's record now and then; the pause costs too much to take every iteration.
void ClearNowAndThen(benchmark::State& state, int64_t& done) {
    if (++done % kClearEvery == 0) {
        state.PauseTiming();
        nvx::ClearSentMessages();
        state.ResumeTiming();
    }
}

void BM_OsdCycle(benchmark::State& state, const char* document) {
    Quiet();
    osdbench::OsdBusiness business;
    if (!business.Apply(document)) {
        state.SkipWithError("the document left a parameter group pending");
        return;
    }
    business.SetSpeedAndTurn();
    nvx::ClearSentMessages();
    int64_t done = 0;
    for (auto _ : state) {
        business.Cycle();
        ClearNowAndThen(state, done);
    }
    nvx::ClearSentMessages();
}
BENCHMARK_CAPTURE(BM_OsdCycle, local_time, osdbench::kLocalDocument);
BENCHMARK_CAPTURE(BM_OsdCycle, utc_dst_rule, osdbench::kUtcDstDocument);

void BM_OsdFloor(benchmark::State& state) {
    Quiet();
    osdbench::OsdBusiness business;
    osdbench::Floor floor;
    if (!business.Apply(osdbench::kLocalDocument)) {
        state.SkipWithError("the document left a parameter group pending");
        return;
    }
    business.SetSpeedAndTurn();
    if (!floor.Learn(business)) {
        state.SkipWithError("the floor does not send the messages the business sends");
        return;
    }
    int64_t done = 0;
    for (auto _ : state) {
        floor.Build();
        ClearNowAndThen(state, done);
    }
    nvx::ClearSentMessages();
}
BENCHMARK(BM_OsdFloor);

// One document with both groups, as a watch notification brings it: parse, time zone and
// label, positions, and the Seven line sent twice (by each group).
void BM_OsdParamDocument(benchmark::State& state, const char* document) {
    Quiet();
    osdbench::OsdBusiness business;
    std::vector<AsynCallbackParaNode_t> nodes(1);
    nodes[0].pData = document;
    nodes[0].iLen = static_cast<int>(strlen(document));
    nodes[0].iReserved = 0;
    int64_t done = 0;
    for (auto _ : state) {
        business.osd().OSDEventHandle(nodes);
        ClearNowAndThen(state, done);
    }
    if (business.osd().m_uiParamPending != 0) {
        state.SkipWithError("the document left a parameter group pending");
    }
    nvx::ClearSentMessages();
}
BENCHMARK_CAPTURE(BM_OsdParamDocument, local_time, osdbench::kLocalDocument);
BENCHMARK_CAPTURE(BM_OsdParamDocument, utc_dst_rule, osdbench::kUtcDstDocument);

// A level-3 line of the business with the level at -1: formatted all the same.
void BM_StandinLogLine(benchmark::State& state) {
    Quiet();
    for (auto _ : state) {
        JQ_LOG_Output("TRUCK", 3, "bench/bench_osd", "BM_StandinLogLine", __LINE__,
                      "m_IOturnState = %d,m_OBDturnState = %d \n", 1, 0);
    }
}
BENCHMARK(BM_StandinLogLine);

}  // namespace
