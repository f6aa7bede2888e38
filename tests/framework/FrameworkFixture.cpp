#include "tests/framework/FrameworkFixture.h"

#include "hostapi/ItemDataManager.h"
#include "hostapi/MediaTemplate.h"
#include "standin/framework/run/RunDevice.h"

namespace fs = std::filesystem;
using namespace Norvale_Plugin_Core;

FrameworkTest::FrameworkTest() {
    fs::create_directory(folder_ / "service");
    params_->release();
    params_->setBackupState(false);
    params_->setParams((folder_ / "service").string(), "", true, 1, folder_.string());
    params_->setRetryAttempts("2");
}

FrameworkTest::~FrameworkTest() {
    params_->release();
}

std::string FrameworkTest::store(HostServiceClientMac& client, const std::string& path, std::string content,
                                 const std::string& item) {
    std::string metadata;
    if (!item.empty()) {
        MediaTemplate description;
        description.setID(item);
        description.setPhysicalFileName(path);
        metadata = ItemDataManager().saveItemData(&description);
    }
    client.openFile(path, 7, command_, result_, error_);
    if (result_ != "SUC") return result_;
    client.writeFileV2(7, content.data(), static_cast<int>(content.size()), command_, result_, error_);
    client.closeFile(7, metadata.data(), static_cast<int>(metadata.size()), command_, result_, error_);
    const std::string closed = result_, reason = error_;
    if (closed != "SUC") client.deleteFile(7, command_, result_, error_);
    error_ = reason;
    if (closed == "SUC") flickr_standin::runDeviceIfThere()->staged().place();
    return closed;
}

std::set<std::string> FrameworkTest::files() const {
    std::set<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(folder_ / "service")) {
        const std::string name = entry.path().lexically_relative(folder_ / "service").string();
        if (name.find(".ledger.db") == std::string::npos && !entry.is_directory()) names.insert(name);
    }
    return names;
}
