#include "Wire.h"

#include <gmock/gmock.h>

#include <string>

namespace {

using std::string;

string readTopicAs(const string& topic)
{
    string device = "none";
    string what = "none";
    return readTopic(topic, device, what) ? device + ", " + what : "no topic";
}

TEST(WireTest, TopicIsOfADevice)
{
    EXPECT_EQ(topicOf("device-17", "set"), "fleet/device-17/set");
    EXPECT_EQ(readTopicAs("fleet/device-17/set"), "device-17, set");
    EXPECT_EQ(readTopicAs("fleet/d\xc3\xa4/applied"), "d\xc3\xa4, applied");
    EXPECT_EQ(readTopicAs("fleet/device/"), "device, ");
}

TEST(WireTest, OtherTopicsAreNone)
{
    for (const char* const topic :
         {"", "fleet", "fleet/", "fleet/device", "fleet//set", "fleets/device/set",
          "/fleet/device/set", "fleet/device/set/more", "fleet/device//"})
        EXPECT_EQ(readTopicAs(topic), "no topic") << topic;
}

string unpackSetAs(const string& payload)
{
    std::string_view header;
    std::string_view bytes;
    return unpackSet(payload, header, bytes) ? string(header) + "|" + string(bytes) : "no set";
}

TEST(WireTest, SetHasItsHeadersLengthBeforeIt)
{
    EXPECT_EQ(packSet("head", "changes"), string("\4\0\0\0headchanges", 15));
    EXPECT_EQ(packSet("", ""), string(4, '\0'));
    EXPECT_EQ(packSet(string(0x010203, 'h'), "").substr(0, 5), string("\3\2\1\0h", 5));
    EXPECT_EQ(unpackSetAs(packSet("head", "changes")), "head|changes");
    EXPECT_EQ(unpackSetAs(packSet("", "")), "|");
    const string zeros(300, '\0');
    EXPECT_EQ(unpackSetAs(packSet(zeros, zeros)), zeros + "|" + zeros);
}

TEST(WireTest, SetThatIsCutOffIsNone)
{
    for (const string& payload :
         {string(), string(3, '\0'), string("\5\0\0\0head", 8), string("\0\1\0\0head", 8),
          string("\0\0\0\xffhead", 8), string("\xff\xff\xff\xff", 4)})
        EXPECT_EQ(unpackSetAs(payload), "no set") << testing::PrintToString(payload);
    EXPECT_EQ(unpackSetAs(string("\4\0\0\0head", 8)), "head|");
}

string unpackAnswerAs(const string& payload)
{
    Answer answer;
    if (!unpackAnswer(payload, answer))
        return "no answer";
    return string(answer.isStored ? "stored " : "refused ")
           + std::to_string(answer.last.incarnation) + " " + std::to_string(answer.last.number)
           + " [" + answer.reason + "]";
}

TEST(WireTest, AnswerTellsThePositionAndWhyNot)
{
    EXPECT_EQ(packAnswer({true, {-7, 12}, ""}), "stored -7 12");
    EXPECT_EQ(packAnswer({false, {7, 12}, "it is not there"}), "refused 7 12 it is not there");
    EXPECT_EQ(unpackAnswerAs("stored -9223372036854775808 9223372036854775807"),
              "stored -9223372036854775808 9223372036854775807 []");
    EXPECT_EQ(unpackAnswerAs("refused 7 12 it is not there"), "refused 7 12 [it is not there]");
    EXPECT_EQ(unpackAnswerAs("refused 0 0 "), "refused 0 0 []");
}

TEST(WireTest, OtherAnswersAreNone)
{
    for (const char* const payload :
         {"", "stored", "stored 1", "stored 1 ", "stored x 1", "stored 1 2x", "stored  1 2",
          "Stored 1 2", "kept 1 2", "stored 1 9223372036854775808", "stored +1 2"})
        EXPECT_EQ(unpackAnswerAs(payload), "no answer") << payload;
}

} // namespace
