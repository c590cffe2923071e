// The system-log queue: what a business pushes leaves on the bus in batches, per group, in
// order, and bounded.
#include <string.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "CycleRunner.h"
#include "TestSupport.h"

namespace {

// A decoder of the log message written here, not taken from the code under test.
struct LogBatch {
    uint32_t mask = 0;
    uint32_t count = 0;
    size_t length = 0;
    std::vector<std::string> texts;
    std::vector<std::vector<uint8_t>> records;
};

uint32_t ReadLE32(const std::vector<uint8_t>& bytes, size_t at) {
    return static_cast<uint32_t>(bytes[at]) | static_cast<uint32_t>(bytes[at + 1]) << 8 |
           static_cast<uint32_t>(bytes[at + 2]) << 16 | static_cast<uint32_t>(bytes[at + 3]) << 24;
}

std::vector<LogBatch> SentBatches() {
    std::vector<LogBatch> batches;
    for (const nvx::BusMessage& m : nvx::SentMessages()) {
        if (m.event != 0x1134) {
            continue;
        }
        EXPECT_EQ(m.client, "truckbusiness.02");
        EXPECT_EQ(m.source, nvx::SourceIdOf("truckbusiness.02"));
        EXPECT_TRUE(m.flag == 0 && m.destination == 0);
        LogBatch batch;
        batch.length = m.payload.size();
        EXPECT_GE(m.payload.size(), 8u);
        batch.mask = ReadLE32(m.payload, 0);
        batch.count = ReadLE32(m.payload, 4);
        EXPECT_EQ(m.payload.size(), 8u + 236u * batch.count);
        for (uint32_t i = 0; i < batch.count && 8 + 236 * (i + 1) <= m.payload.size(); ++i) {
            std::vector<uint8_t> record(m.payload.begin() + 8 + 236 * i,
                                        m.payload.begin() + 8 + 236 * (i + 1));
            batch.texts.emplace_back(reinterpret_cast<const char*>(record.data() + 12),
                                     strnlen(reinterpret_cast<const char*>(record.data() + 12), 128));
            batch.records.push_back(record);
        }
        batches.push_back(batch);
    }
    return batches;
}

class SystemLog : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        config = MakeGlobalConfig();
        manage = std::make_shared<CTruckServiceManage>(&config);
    }
    void TearDown() override {
        manage.reset();
        DeviceTest::TearDown();
    }
    tagGlobalConfig config;
    std::shared_ptr<CTruckServiceManage> manage;
};

}  // namespace

TEST_F(SystemLog, TextRecordsCarryTimeAndCutTextAndGoToEverySelectedGroup) {
    nvx::SetWallClock(1767323045);  // 2026-01-02 03:04:05
    const std::string longText(200, 'x');
    EXPECT_EQ(manage->basic_system_log_push(0x07, longText.c_str()), 0);
    EXPECT_EQ(manage->basic_system_log_push(0x00, "nowhere"), 0);
    EXPECT_EQ(manage->basic_system_log_push(0xF8, "high bits only"), 0);
    EXPECT_EQ(manage->basic_system_log_push(0x01, static_cast<const char*>(nullptr)), -1);
    EXPECT_TRUE(Logged("TRUCK", 0, "write log error\n"));

    EXPECT_EQ(manage->basic_system_log_write(), 0);
    const std::vector<LogBatch> batches = SentBatches();
    ASSERT_EQ(batches.size(), 3u);
    for (size_t g = 0; g < 3; ++g) {
        EXPECT_EQ(batches[g].mask, 1u << g);
        EXPECT_EQ(batches[g].count, 1u);
        EXPECT_EQ(batches[g].length, 244u);
        ASSERT_EQ(batches[g].texts.size(), 1u);
        EXPECT_EQ(batches[g].texts[0], std::string(127, 'x'));
        const std::vector<uint8_t>& r = batches[g].records[0];
        EXPECT_EQ(std::vector<uint8_t>(r.begin(), r.begin() + 6), (std::vector<uint8_t>{26, 1, 2, 3, 4, 5}));
        for (size_t i = 8; i < 12; ++i) {
            EXPECT_EQ(r[i], 0) << "offset " << i;
        }
        for (size_t i = 140; i < 236; ++i) {
            EXPECT_EQ(r[i], 0) << "offset " << i;
        }
    }
    EXPECT_TRUE(Logged("TRUCK", 4, "Write record log, group = 4, writeCount = 1, writeLen = 244\n"));
}

TEST_F(SystemLog, DrainsAtMostFiftyPerGroupAndKeepsTheNewest501) {
    for (int i = 0; i < 120; ++i) {
        manage->basic_system_log_push(0x02, std::to_string(i).c_str());
    }
    for (int i = 0; i < 502; ++i) {
        manage->basic_system_log_push(0x01, std::to_string(i).c_str());
    }
    for (int i = 0; i < 11; ++i) {
        manage->basic_system_log_write();
    }
    std::vector<size_t> group1Lengths;
    std::vector<std::string> group0Texts;
    for (const LogBatch& batch : SentBatches()) {
        if (batch.mask == 2) {
            group1Lengths.push_back(batch.length);
        } else {
            EXPECT_EQ(batch.mask, 1u);
            EXPECT_LE(batch.count, 50u);
            group0Texts.insert(group0Texts.end(), batch.texts.begin(), batch.texts.end());
        }
    }
    EXPECT_EQ(group1Lengths, (std::vector<size_t>{11808, 11808, 4728}));
    ASSERT_EQ(group0Texts.size(), 501u) << "the oldest of 502 was dropped";
    for (size_t i = 0; i < group0Texts.size(); ++i) {
        EXPECT_EQ(group0Texts[i], std::to_string(i + 1));
    }
}

TEST_F(SystemLog, ImmediateWriteSendsOneMessagePerGroupAndLeavesTheQueues) {
    manage->basic_system_log_push(0x02, "queued");
    JQSystemLogFrame frame;
    memset(&frame, 0x5A, sizeof(frame));  // a caller's full record, text without terminator
    EXPECT_EQ(manage->WriteSystemLog(0x05, frame), 0);
    std::vector<LogBatch> batches = SentBatches();
    ASSERT_EQ(batches.size(), 2u);
    EXPECT_EQ(batches[0].mask, 1u);
    EXPECT_EQ(batches[1].mask, 4u);
    EXPECT_EQ(batches[1].length, 244u);
    EXPECT_EQ(batches[1].records[0], std::vector<uint8_t>(236, 0x5A));
    EXPECT_TRUE(
        Logged("TRUCK", 3, "Write record log, group = 4, szLogDisplay = " + std::string(128, 'Z') + "\n"));

    nvx::ClearSentMessages();
    manage->basic_system_log_write();
    batches = SentBatches();
    ASSERT_EQ(batches.size(), 1u);
    EXPECT_EQ(batches[0].texts, std::vector<std::string>{"queued"});
}

// Producers on other threads while the main cycle drains once a second: every record
// arrives once in every group, in each producer's order. The producers pause for a drain
// between their chunks, so that pushes and drains interleave on any machine.
TEST_F(SystemLog, TheMainCycleSendsEverythingPushedFromOtherThreads) {
    CycleRunner runner(manage);
    const int kProducers = 3;
    const int kEach = 60;
    const int kChunk = 20;
    auto batchesSent = [] {
        size_t n = 0;
        for (const nvx::BusMessage& m : nvx::SentMessages()) {
            n += m.event == 0x1134 ? 1 : 0;
        }
        return n;
    };
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (int i = 0; i < kEach; ++i) {
                const std::string text = std::to_string(p) + ":" + std::to_string(i);
                manage->basic_system_log_push(0x07, text.c_str());
                if ((i + 1) % kChunk == 0) {
                    const size_t seen = batchesSent();
                    EXPECT_TRUE(Eventually([&] { return batchesSent() > seen; }));
                }
            }
        });
    }
    for (std::thread& t : producers) {
        t.join();
    }
    std::map<uint32_t, std::vector<std::string>> byGroup;
    auto all = [&] {
        byGroup.clear();
        for (const LogBatch& batch : SentBatches()) {
            byGroup[batch.mask].insert(byGroup[batch.mask].end(), batch.texts.begin(), batch.texts.end());
        }
        return byGroup[1].size() + byGroup[2].size() + byGroup[4].size() >= 3u * kProducers * kEach;
    };
    EXPECT_TRUE(Eventually(all));
    manage->basic_uninit();
    for (uint32_t mask : {1u, 2u, 4u}) {
        ASSERT_EQ(byGroup[mask].size(), static_cast<size_t>(kProducers * kEach)) << "group mask " << mask;
        std::map<int, int> next;  // producer -> next index expected
        for (const std::string& text : byGroup[mask]) {
            const int producer = std::stoi(text.substr(0, text.find(':')));
            const int index = std::stoi(text.substr(text.find(':') + 1));
            EXPECT_EQ(index, next[producer]++) << "group mask " << mask << ", record " << text;
        }
    }
}
