// Driver for counting instructions under callgrind: `osd_cycles cycle|floor [count]` runs
// `count` OSD cycles, or `count` floor builds of the same two messages, on a business with
// the local-time document applied. Only what runs inside osd_run_cycles / osd_run_floor is
// meant to be counted (scripts/callgrind_osd.sh collects in those two alone), so setting up
// and tearing down the business stay out of the numbers. Exit status 1 when the run did not
// send the messages it should have.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "OsdBenchSupport.h"

// Out of line, so that callgrind finds them by name.
__attribute__((noinline)) void osd_run_cycles(osdbench::OsdBusiness& business, int count) {
    for (int i = 0; i < count; ++i) {
        business.Cycle();
    }
}

__attribute__((noinline)) void osd_run_floor(osdbench::Floor& floor, int count) {
    for (int i = 0; i < count; ++i) {
        floor.Build();
    }
}

int main(int argc, char** argv) {
    const bool cycle = argc > 1 && strcmp(argv[1], "cycle") == 0;
    const bool floorBuilds = argc > 1 && strcmp(argv[1], "floor") == 0;
    const int count = argc > 2 ? atoi(argv[2]) : 1000;
    if ((!cycle && !floorBuilds) || count <= 0) {
        fprintf(stderr, "usage: %s cycle|floor [count]\n", argv[0]);
        return 2;
    }
    nvx::SetLogLevel(-1);
    osdbench::OsdBusiness business;
    if (!business.Apply(osdbench::kLocalDocument)) {
        fprintf(stderr, "the document left a parameter group pending\n");
        return 1;
    }
    business.SetSpeedAndTurn();
    osdbench::Floor floor;
    if (!floor.Learn(business)) {
        fprintf(stderr, "the floor does not send the messages the business sends\n");
        return 1;
    }
    nvx::ClearSentMessages();
    if (cycle) {
        osd_run_cycles(business, count);
    } else {
        osd_run_floor(floor, count);
    }
    const size_t sent = osdbench::SentOverlays().size();
    nvx::ClearSentMessages();
    if (sent != 2u * static_cast<size_t>(count)) {
        fprintf(stderr, "%zu overlay messages sent, %d expected\n", sent, 2 * count);
        return 1;
    }
    printf("%s: %d runs, %zu overlay messages\n", argv[1], count, sent);
    return 0;
}
