// What the plug-in reads from its configuration.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "hostapi/CSConfigException.h"
#include "hostapi/PluginCore.h"
#include "standin/framework/run/RunError.h"
#include "tests/framework/FrameworkFixture.h"

using namespace Norvale_Plugin_Core;
using namespace flickr_standin;
using testing::HasSubstr;

namespace {

using ConfigurationTest = FrameworkTest;

TEST_F(ConfigurationTest, AnswersFromTheConfigurationWithinTheBuffers) {
    const std::string path = (folder_ / "config.xml").string();
    writeFile(path, "<config><plugin><name> Flickr ${x} </name><CEK/><long>" + std::string(2046, 'x') +
                        "\u20ac</long></plugin></config>");
    PluginCore core(path, (folder_ / "log").string());
    std::string buffer(2049, '#');
    char error[2048] = "";
    EXPECT_EQ(core.getName(buffer.data(), error), 1);
    EXPECT_STREQ(buffer.c_str(), "Flickr ${x}");
    EXPECT_EQ(core.getValueString("plugin.CEK", buffer.data(), nullptr), 1);
    EXPECT_STREQ(buffer.c_str(), "");
    EXPECT_EQ(core.getValueString("plugin.long", buffer.data(), error), 1);
    EXPECT_EQ(buffer.c_str(), std::string(2046, 'x')) << "cut between two characters";
    EXPECT_EQ(buffer[2048], '#');
    EXPECT_NE(core.getVersion(buffer.data(), nullptr), 1);
    EXPECT_NE(core.getVersion(buffer.data(), error), 1);
    EXPECT_THAT(error, HasSubstr("plugin.version"));
    EXPECT_EQ(core.getExceptionCode(), 1);
    CSConfigException refused(0);
    core.handleException("Flickr", refused, "went wrong");
    EXPECT_EQ(core.getExceptionCode(), RunErrorAuthorisation);
    EXPECT_EQ(core.getExceptionDetails(), "went wrong");

    writeFile(path, "<config><plugin>");
    PluginCore broken(path, "/nowhere/log");
    EXPECT_NE(broken.getName(buffer.data(), error), 1);
    EXPECT_THAT(error, HasSubstr(path));
}

}  // namespace
