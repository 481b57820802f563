// Message objects: codes, display forms and formatting, the ring of ToString
// texts, the duplicate test, and which actions Issue runs with what. The
// messages come from the test catalog "messages" in a factory of their own.
#include <gtest/gtest.h>
#include <unicode/locid.h>
#include <unicode/timezone.h>

#include <climits>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "zvlog/ErrorContext.h"
#include "zvlog/Message.h"
#include "zvlog/ULibCharSet.h"
#include "zvlog/msg/MessageInternals.h"
#include "zvlog/msg/MessageTesting.h"

namespace msg = zvs::zvlib::zvlog::msg;

namespace {

CMessageFactory* gFactory = nullptr;

// What the test actions saw, in order.
std::vector<std::string> gRuns;
std::vector<msg::IssueRecord> gRecords;
std::vector<std::string> gRecordTexts;  // the record's texts, copied while valid

bool memberOk(const msg::Action& action, const CMessage& message) {
    gRuns.push_back(action.name + ":" + std::to_string(message.GetMessageID()));
    return true;
}

bool memberFails(const msg::Action& action, const CMessage&) {
    gRuns.push_back(action.name);
    return false;
}

bool plainOk(const msg::IssueRecord& record) {
    gRuns.push_back("plain");
    gRecords.push_back(record);
    gRecordTexts.push_back(std::string(record.severityName) + "|" + record.text + "|" + record.appInstance + "|" +
                           record.appInstanceDescription);
    return true;
}

msg::Action action(const char* name, CActionAttribute attributes, msg::MemberOperation member,
                   msg::PlainOperation plain = nullptr) {
    msg::Action a;
    a.name = name;
    a.attributes = attributes;
    a.member = member;
    a.plain = plain;
    return a;
}

class MessageTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // Numbers and dates format the same wherever the test runs.
        UErrorCode status = U_ZERO_ERROR;
        icu::Locale::setDefault(icu::Locale::getUS(), status);
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("UTC"));
        std::string diagnostics;
        gFactory = msg::testing::loadFactory(ZVLOG_TEST_CATALOGS "/messages/zvtest_messages", &diagnostics);
        ASSERT_NE(gFactory, nullptr) << diagnostics;
        // No repetition thread for a factory the suite deletes.
        gFactory->SuppressDuplicateMessages(false);
    }

    static void TearDownTestSuite() {
        delete gFactory;
        gFactory = nullptr;
    }

    void SetUp() override {
        ASSERT_NE(gFactory, nullptr);
        for (msg::Severity* severity : impl().severities) saved_.push_back(severity->actions);
        gRuns.clear();
        gRecords.clear();
        gRecordTexts.clear();
    }

    void TearDown() override {
        for (size_t i = 0; i < saved_.size(); ++i) {
            impl().severities[i]->actions = saved_[i];
            impl().severities[i]->redirect.store(nullptr);
        }
        impl().processActions.clear();
    }

    static CMessageFactory::Impl& impl() { return *gFactory->impl(); }
    static msg::Severity& severity(const char* name) { return *impl().findSeverity(name); }

    static CMessage* fromItems(unsigned int number, std::vector<CDataItem> items) {
        return gFactory->CreateMessageFromItems(nullptr, number, items.data(), static_cast<unsigned int>(items.size()));
    }

    std::vector<std::vector<msg::Action>> saved_;
};

std::string code(unsigned int number) {
    char out[16];
    memset(out, 'x', sizeof out);
    CMessage::GetMessageCode(number, out);
    EXPECT_EQ(out[9], '\0');
    EXPECT_EQ(out[10], 'x') << "ten bytes in all";
    return out;
}

TEST_F(MessageTest, CodeKeepsTheLastFiveDigits) {
    EXPECT_EQ(code(7), "QMR-00007");
    EXPECT_EQ(code(123456), "QMR-23456");
    EXPECT_EQ(code(0), "QMR-00000");
    EXPECT_EQ(code(4294967295u), "QMR-67295");
    CMessage* message = gFactory->CreateMessage(nullptr, 5000, "x");
    char out[10];
    message->GetMessageCode(out);
    EXPECT_STREQ(out, "QMR-05000");
    EXPECT_STREQ(message->GetSeverityName(), "Alpha");
    delete message;
}

TEST_F(MessageTest, HexadecimalFormsCutAndPad) {
    CMessage* message = gFactory->CreateMessage(nullptr, 5010, 0x1ffu, 0x12345u, 255u, 0x1122334455667788ull, -1, 7u, -5);
    ASSERT_NE(message, nullptr);
    EXPECT_STREQ(message->Format(), "ff|2345|000000ff|1122334455667788|00000000ffffffff|<Unknown>|00000000");
    delete message;
    // A string has no number to show in hexadecimal; a Boolean shows 0 or 1.
    message = fromItems(5010, {CDataItem("s"), CDataItem(true), CDataItem(255u), CDataItem(1ull), CDataItem(1),
                               CDataItem(1u), CDataItem(-1)});
    EXPECT_STREQ(message->Format(), "<Unknown>|0001|000000ff|0000000000000001|0000000000000001|<Unknown>|00000000");
    delete message;
}

TEST_F(MessageTest, NaturalFormsByItemType) {
    // Microseconds count as microseconds / 1000000 milliseconds: .999999 s adds nothing.
    const timeval when{1700000000, 999999};
    CMessage* message = gFactory->CreateMessage(nullptr, 5011, -42, 42u, -5000000000LL, ~0ull, "text",
                                                reinterpret_cast<const void*>(0x1234), when);
    ASSERT_NE(message, nullptr);
    EXPECT_STREQ(message->Format(), "-42|42|-5,000,000,000|-1|text|4660|2023-11-14 22:13:20.000");
    delete message;

    // Item types the variadic form never makes: a Boolean and an array.
    std::vector<CDataItem> elements{CDataItem(1)};
    message = fromItems(5011, {CDataItem(true), CDataItem(false), CDataItem(&elements), CDataItem(0ull),
                               CDataItem("t"), CDataItem(static_cast<const void*>(nullptr)), CDataItem(when)});
    EXPECT_STREQ(message->Format(), "1|0|<Unknown>|0|t|0|2023-11-14 22:13:20.000");
    delete message;
}

// A time item's seconds become milliseconds; seconds that would overflow 64
// bits of milliseconds still print as the latest (or earliest) date the
// calendar knows, never wrapped around to the other end.
TEST_F(MessageTest, TimesBeyondSixtyFourBitMillisecondsPrintAtTheCalendarsEnd) {
    auto when = [](long long seconds) {
        std::vector<CDataItem> items{CDataItem(0), CDataItem(0u), CDataItem(0ll), CDataItem(0ull), CDataItem("t"),
                                     CDataItem(static_cast<const void*>(nullptr)), CDataItem(timespec{seconds, 0})};
        CMessage* message = fromItems(5011, items);
        const char* text = message->Format();
        const std::string result = text ? text : "<null>";
        delete message;
        return result.substr(result.rfind('|') + 1);
    };
    // Past the calendar's own range (about 5.8 million years) it shows its last day.
    const std::string latest = when(183882168921601LL);
    const std::string earliest = when(-184303902528001LL);
    ASSERT_NE(latest, "<null>");
    ASSERT_NE(latest, earliest);
    for (long long seconds : {9223372036854776LL, 4611686018427387904LL, LLONG_MAX})
        EXPECT_EQ(when(seconds), latest) << seconds;
    for (long long seconds : {-9223372036854776LL, -4611686018427387904LL, LLONG_MIN})
        EXPECT_EQ(when(seconds), earliest) << seconds;
    EXPECT_EQ(when(1700000000), "2023-11-14 22:13:20.000");
}

TEST_F(MessageTest, FormatConvertsToTheCharacterSetAndFailsWithNull) {
    CMessage* message = gFactory->CreateMessage(nullptr, 5000, "ab");
    const char* text = message->Format(ULIB_CS_UTF16BE);
    ASSERT_NE(text, nullptr);
    const char expected[] = {0, 'P', 0, 'l', 0, 'a', 0, 'i', 0, 'n', 0, ' ', 0, 'a', 0, 'b'};
    EXPECT_EQ(memcmp(text, expected, sizeof expected), 0);
    EXPECT_STREQ(message->Format(kDefaultCharSet), "Plain ab");
    delete message;

    message = gFactory->CreateMessage(nullptr, 5015, "x");  // pattern "Broken {0"
    EXPECT_EQ(message->Format(), nullptr);
    delete message;

    message = gFactory->CreateMessage(nullptr, 5014);
    EXPECT_STREQ(message->Format(), "No arguments here");
    delete message;
}

TEST_F(MessageTest, ToStringKeepsSixteenTextsPerThread) {
    std::vector<const char*> texts;
    for (int i = 0; i < 16; ++i) {
        CMessage* message = gFactory->CreateMessage(nullptr, 5000, std::to_string(i).c_str());
        texts.push_back(message->ToString());
    }
    EXPECT_STREQ(texts[0], "Plain 0");
    EXPECT_STREQ(texts[15], "Plain 15");
    for (const char* text : texts) EXPECT_TRUE(msg::testing::recentTextHeld(text));

    // Another thread's texts do not push this thread's out.
    std::thread other([] {
        for (int i = 0; i < 20; ++i) gFactory->CreateMessage(nullptr, 5000, "other")->ToString();
    });
    other.join();
    EXPECT_TRUE(msg::testing::recentTextHeld(texts[0]));

    const char* seventeenth = gFactory->CreateMessage(nullptr, 5000, "16")->ToString();
    EXPECT_STREQ(seventeenth, "Plain 16");
    EXPECT_FALSE(msg::testing::recentTextHeld(texts[0])) << "the 17th text frees the first";
    EXPECT_TRUE(msg::testing::recentTextHeld(texts[1]));
    EXPECT_STREQ(texts[1], "Plain 1");

    // A text that cannot be made takes no place in the ring.
    EXPECT_EQ(gFactory->CreateMessage(nullptr, 5015, "x")->ToString(), nullptr);
    EXPECT_TRUE(msg::testing::recentTextHeld(texts[1]));
}

TEST_F(MessageTest, EqualityComparesOnlyTheDetailedArguments) {
    auto equal = [](unsigned int n1, std::vector<CDataItem> a, unsigned int n2, std::vector<CDataItem> b) {
        CMessage* x = fromItems(n1, std::move(a));
        CMessage* y = fromItems(n2, std::move(b));
        const bool result = *x == *y;
        EXPECT_EQ(result, *y == *x);
        delete x;
        delete y;
        return result;
    };
    // 5012 has one detail: a second argument is not looked at.
    EXPECT_TRUE(equal(5012, {CDataItem("same"), CDataItem("x")}, 5012, {CDataItem("same"), CDataItem("y")}));
    EXPECT_FALSE(equal(5012, {CDataItem("same")}, 5012, {CDataItem("samE")}));
    EXPECT_FALSE(equal(5012, {CDataItem("1")}, 5012, {CDataItem(1)})) << "types differ";
    EXPECT_FALSE(equal(5000, {CDataItem("same")}, 5012, {CDataItem("same")})) << "numbers differ";
    // A message without details equals every other occurrence.
    EXPECT_TRUE(equal(5014, {CDataItem(1)}, 5014, {CDataItem(2)}));

    // Arrays by length and elements; date-times by their first 64 bits (the seconds).
    std::vector<CDataItem> ab{CDataItem("a"), CDataItem(2)};
    std::vector<CDataItem> ab2{CDataItem("a"), CDataItem(2)};
    std::vector<CDataItem> a{CDataItem("a")};
    EXPECT_TRUE(equal(5017, {CDataItem(&ab), CDataItem(timespec{100, 5})}, 5017,
                      {CDataItem(&ab2), CDataItem(timespec{100, 9})}));
    EXPECT_FALSE(equal(5017, {CDataItem(&ab), CDataItem(timespec{100, 5})}, 5017,
                       {CDataItem(&a), CDataItem(timespec{100, 5})}));
    EXPECT_FALSE(equal(5017, {CDataItem(&ab), CDataItem(timespec{100, 5})}, 5017,
                       {CDataItem(&ab), CDataItem(timespec{101, 5})}));
}

TEST_F(MessageTest, IssueRunsTheActionsThatMeetTheMask) {
    severity("Alpha").actions = {action("first", 4, &memberOk), action("record", 4, nullptr, &plainOk),
                                 action("ending", 1, &memberOk)};
    CMessage* message = gFactory->CreateMessage(nullptr, 5000, "hello");  // class AA: Alpha
    EXPECT_TRUE(message->Issue(4));
    EXPECT_EQ(gRuns, (std::vector<std::string>{"first:5000", "plain"}));
    ASSERT_EQ(gRecords.size(), 1u);
    EXPECT_STREQ(gRecords[0].messageClass, "AA");
    EXPECT_STREQ(gRecords[0].code, "ABC");
    EXPECT_EQ(gRecordTexts[0], "Alpha|Plain hello||");
    const timespec time = static_cast<timespec>(*message->GetContext()->GetItem(MessageTime));
    EXPECT_EQ(gRecords[0].time.tv_sec, time.tv_sec);
    EXPECT_EQ(gRecords[0].time.tv_nsec, time.tv_nsec);

    gRuns.clear();
    EXPECT_TRUE(message->Issue(kAllActions));
    EXPECT_EQ(gRuns, (std::vector<std::string>{"first:5000", "plain", "ending:5000"}));
    gRuns.clear();
    EXPECT_TRUE(message->Issue(2));
    EXPECT_TRUE(gRuns.empty());
    delete message;

    // A text that cannot be made reaches plain actions as "Formatting error".
    message = gFactory->CreateMessage(nullptr, 5015, "x");
    EXPECT_TRUE(message->Issue(4));
    EXPECT_EQ(gRecordTexts.back(), "Alpha|Formatting error||");
    delete message;
}

TEST_F(MessageTest, ProcessActionsRunFirstAndAFailureStopsTheSeverity) {
    severity("Alpha").actions = {action("failing", 4, &memberFails), action("after", 4, &memberOk)};
    impl().processActions = {action("process", 4, &memberOk)};
    CMessage* message = gFactory->CreateMessage(nullptr, 5000, "x");
    // A failing action does not stop the rest of its list, but fails Issue.
    EXPECT_FALSE(message->Issue(kAllActions));
    EXPECT_EQ(gRuns, (std::vector<std::string>{"process:5000", "failing", "after:5000"}));

    gRuns.clear();
    impl().processActions = {action("processFails", 4, &memberFails), action("process", 4, &memberOk)};
    EXPECT_FALSE(message->Issue(kAllActions));
    EXPECT_EQ(gRuns, (std::vector<std::string>{"processFails", "process:5000"}));
    delete message;

    // Without a severity only the process actions run.
    gRuns.clear();
    impl().processActions = {action("process", 4, &memberOk)};
    message = gFactory->CreateMessage(nullptr, 5005);  // class FF has no severity
    EXPECT_STREQ(message->GetSeverityName(), "");
    EXPECT_TRUE(message->Issue(kAllActions));
    EXPECT_EQ(gRuns, (std::vector<std::string>{"process:5005"}));
    delete message;
}

TEST_F(MessageTest, IssueFollowsTheRedirect) {
    severity("Alpha").actions = {action("alpha", 4, &memberOk)};
    severity("Gamma").actions = {action("gamma", 4, &memberOk)};
    severity("Alpha").redirect.store(&severity("Gamma"));
    CMessage* message = gFactory->CreateMessage(nullptr, 5000, "x");
    EXPECT_TRUE(message->Issue(kAllActions));
    EXPECT_EQ(gRuns, (std::vector<std::string>{"gamma:5000"}));
    EXPECT_STREQ(message->GetSeverityName(), "Alpha");
    delete message;
}

TEST_F(MessageTest, IssueConsumesTheIssueLimit) {
    severity("Beta").actions = {action("beta", 4, &memberOk)};
    CMessage* message = gFactory->CreateMessage(nullptr, 5002, "x");  // limit 2
    EXPECT_TRUE(message->Issue(kAllActions));
    EXPECT_TRUE(message->Issue(2));  // runs nothing, still counts
    EXPECT_TRUE(message->Issue(kAllActions));
    EXPECT_EQ(gRuns.size(), 1u);
    EXPECT_EQ(impl().issueLimits.at(5002), 0u);
    delete message;
}

}  // namespace
