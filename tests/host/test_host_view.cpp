// The host's status panel: what a person at the terminal reads off the media side.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HostView.h"

namespace {

media::Item MakeItem(const std::string& text, uint16_t x, uint16_t y) {
    media::Item item;
    item.text = text;
    item.x = x;
    item.y = y;
    item.fontSize = 1;
    return item;
}

std::string Joined(const std::vector<std::string>& lines) {
    std::string all;
    for (const std::string& line : lines) {
        all += line + "\n";
    }
    return all;
}

size_t Characters(const std::string& text) {
    size_t count = 0;
    for (unsigned char c : text) {
        count += (c & 0xC0) != 0x80;
    }
    return count;
}

}  // namespace

TEST(HostPanel, ChannelsShowingTheSameItemsShareTheirLinesAndTheRestIsNamed) {
    media::Snapshot s;
    for (int ch = 0; ch < 4; ++ch) {
        s.channels[ch][media::kKindTime] = MakeItem("2026-03-08 03:00:00", 300, 30);
        s.channels[ch][media::kKindSpeed] = MakeItem("63KM/H (L R)", 1024, 30);
    }
    s.channels[4][media::kKindTime] = MakeItem("2026-03-08 03:00:00", 300, 30);
    s.channels[6][media::kKindTime] = MakeItem("2026-03-08 03:00:00", 300, 30);  // not next to 4
    media::Overlay seven;
    seven.kind = media::kKindSeven;
    seven.hasText = true;
    seven.text = "DRIVER 0042";
    s.lastOverlay[media::kKindSeven] = seven;
    s.hasDst = true;
    s.dst.state = 0;
    s.dst.shiftHours = 1;
    s.undecodable = 2;
    s.lastProblem = "overlay text has no terminating zero";

    truckhost::PanelInput input;
    input.deviceClock = 4102444799;  // past the device build's time_t
    input.recentLog = {"L2 a\tbc\td"};
    const std::string panel = Joined(truckhost::RenderPanel(s, input, 200));
    EXPECT_NE(panel.find("\n  L2 a    bc      d\n"), std::string::npos) << "tabs to columns of eight\n"
                                                                        << panel;
    EXPECT_NE(panel.find("device clock 2099-12-31 23:59:59 "), std::string::npos) << panel;
    EXPECT_NE(panel.find("ch 0-3   time"), std::string::npos) << panel;
    EXPECT_NE(panel.find("ch 4     time"), std::string::npos) << panel;
    EXPECT_NE(panel.find("ch 6     time"), std::string::npos) << panel;
    EXPECT_NE(panel.find("none     seven"), std::string::npos) << "a line that reaches no channel\n" << panel;
    EXPECT_NE(panel.find("turn shown left+right"), std::string::npos) << panel;
    EXPECT_NE(panel.find("daylight saving in force, shift 1 h"), std::string::npos) << panel;
    EXPECT_NE(panel.find("2 unreadable"), std::string::npos) << panel;
    EXPECT_NE(panel.find("last unreadable: overlay text has no terminating zero"), std::string::npos)
        << panel;
}

TEST(HostPanel, LinesFitTheTerminalWithoutCuttingACharacterOrPassingControls) {
    media::Snapshot s;
    s.channels[0][media::kKindSeven] =
        MakeItem(std::string(40, 'x') + "\x1b[2J\xE4\xB8\xAD\xE6\x96\x87", 1, 2);
    s.lastParameter = std::string(300, 'p');
    s.parameterWrites = 1;
    for (int columns : {20, 57, 80}) {
        for (const std::string& line : truckhost::RenderPanel(s, truckhost::PanelInput(), columns)) {
            EXPECT_LE(Characters(line), static_cast<size_t>(columns)) << line;
            EXPECT_EQ(line.find('\x1b'), std::string::npos) << "an escape from a text would move the cursor";
            EXPECT_EQ(truckhost::FitColumns(line, columns), line);
        }
    }
    EXPECT_EQ(truckhost::FitColumns("ab\xE4\xB8\xAD\xE6\x96\x87", 3), "ab\xE4\xB8\xAD");
    EXPECT_EQ(truckhost::FitColumns("ab", 0), "");
}
