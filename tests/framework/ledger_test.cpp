// The ledger, the file service's own database of what it put on the device.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "standin/framework/device/Ledger.h"
#include "tests/framework/FrameworkFixture.h"

using namespace Norvale_Plugin_Core;
using namespace flickr_standin;
using testing::ElementsAre;

namespace {

using LedgerTest = FrameworkTest;

TEST_F(LedgerTest, KeepsFilesPendingUntilTheirOwnRowIsThere) {
    const std::string path = (folder_ / "ledger.db").string();
    const auto pending = [](Ledger& ledger) {
        std::set<std::string> paths;
        for (const LedgerFile& file : ledger.pendingFiles()) paths.insert(file.path);
        return paths;
    };
    {
        Ledger ledger(path);
        for (int i = 0; i < 200; ++i) {
            const std::string item = std::to_string(i);
            ledger.putFile({item + ".jpg", item, 1, "", "", FileState::Pending});
            ledger.settleItemLater(item);
        }
        ledger.putFile({"new 199.jpg", "199", 1, "", "", FileState::Pending});
        ledger.putFile({"200.jpg", "200", 1, "", "", FileState::Pending});
        EXPECT_THAT(pending(ledger), ElementsAre("200.jpg", "new 199.jpg"));
        ledger.settleItemLater("200");
    }
    Ledger ledger(path);
    EXPECT_THAT(pending(ledger), ElementsAre("new 199.jpg"));
}

}  // namespace
