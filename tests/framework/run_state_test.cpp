// What a run knows and reaches: its error, its stop, its attempts and the words of its language.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "hostapi/CSConfigException.h"
#include "hostapi/CSNetworkException.h"
#include "hostapi/ExceptionHandlerMac.h"
#include "hostapi/Utils.h"
#include "standin/framework/base/Localisation.h"
#include "standin/framework/run/RunError.h"
#include "tests/framework/FrameworkFixture.h"

using namespace Norvale_Plugin_Core;
using namespace flickr_standin;

namespace {

using RunStateTest = FrameworkTest;

TEST_F(RunStateTest, RecordsTheFirstErrorAndTellsStopsApart) {
    int code = 99;
    std::string text = "x";
    const auto details = [&] {
        params_->getErrorDetails(code, text);
        return code;
    };
    EXPECT_EQ(details(), 1);
    EXPECT_EQ(text, "");
    params_->setBackupState(true);
    EXPECT_EQ(details(), 0);
    EXPECT_TRUE(params_->isManuallyStopped());

    params_->setBackupState(false);
    ExceptionHandlerMac handler("Flickr");
    CSNetworkException network("status 500", 0);
    handler.handleException(network, "first attempt", 1);
    EXPECT_EQ(details(), 1) << "there is another attempt";
    handler.handleException(network, "last attempt", 2);
    EXPECT_EQ(details(), RunErrorNetwork);
    EXPECT_FALSE(params_->isBackupStopped());
    CSConfigException refused(0);
    handler.handleException(refused, "Invalid Auth Token", 0);
    EXPECT_EQ(details(), RunErrorNetwork) << "the first one stays";
    EXPECT_TRUE(params_->isBackupStopped());
    EXPECT_FALSE(params_->isManuallyStopped());
    params_->setBackupState(true);
    EXPECT_EQ(details(), RunErrorNetwork) << "also after a stop";

    params_->setBackupState(false);
    EXPECT_FALSE(params_->isBackupStopped());
    EXPECT_EQ(details(), 1);
    handler.handleException(refused, "auth_token=abc refused", 0);
    EXPECT_EQ(details(), RunErrorAuthorisation);
    EXPECT_EQ(text, "auth_token=*** refused");
    for (const char* attempts : {"-3", "", "many", "9999999999999"}) {
        params_->setRetryAttempts(attempts);
        EXPECT_EQ(params_->getRetryAttempts(), 0) << attempts;
    }
    params_->release();
    EXPECT_EQ(details(), 1);
    EXPECT_EQ(params_->getPluginRoot(), "");
}

TEST_F(RunStateTest, ReadsKeywordsFromPairsAndFromCultures) {
    params_->setKeywords("ThumbnailKey=Klein/Bild||FlickrKey=||Nonsense||Sun=So||=x||Mon=a=b");
    EXPECT_EQ(params_->getValue("ThumbnailKey"), "Klein_Bild");
    EXPECT_EQ(params_->getValue("FlickrKey"), "My Flickr Items") << "the default for a missing word";
    EXPECT_EQ(params_->getValue("Sun"), "So");
    EXPECT_EQ(params_->getValue("Mon"), "a=b");
    EXPECT_EQ(params_->getValue("Unknown"), "");
    for (const std::string& culture : knownCultures()) {
        params_->setCulture(culture);
        const std::string folder = params_->getValue("FlickrKey");
        EXPECT_EQ(localisedServiceFolderName(culture), folder);
        EXPECT_EQ(Utils().NormalizeString(folder), folder);
        const std::string word = localisedKeyword(culture, kThumbnailKey);
        params_->setKeywords("FlickrKey=" + folder + "||ThumbnailKey=" + word + "||");
        EXPECT_EQ(params_->getValue("FlickrKey"), folder);
        EXPECT_EQ(params_->getValue("ThumbnailKey"), word);
    }
    EXPECT_EQ(localisedKeyword("de-AT", "ThumbnailKey"), localisedKeyword("de", "ThumbnailKey"));
    EXPECT_EQ(localisedKeyword("xx", "ThumbnailKey"), "Thumbnail");
}

}  // namespace
