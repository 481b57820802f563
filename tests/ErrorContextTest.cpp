// The per-thread error context (pending messages, issuing in phases, the
// application and system error items) and the context each message carries.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "zvlog/AppContext.h"
#include "zvlog/ErrorContext.h"
#include "zvlog/SourceContext.h"
#include "zvlog/msg/MessageInternals.h"

namespace zvtest {

using zvs::zvlib::zvlog::msg::Action;

std::atomic<int> gSourcesDestroyed{0};

// A caller's context whose end the tests can see.
class TrackedSource : public CSourceContext {
public:
    TrackedSource() : CSourceContext("zvlog.test", "tests/ErrorContextTest", "TrackedSource", 1) {}
    ~TrackedSource() override { ++gSourcesDestroyed; }
};

// Message 12421 ("Unable to create the directory {0}: {1}"), whose severity
// only stores a copy: issuing it has no visible side effect.
CMessage* makeMessage(const char* directory, const char* reason = "reason") {
    return CMessageFactory::GetDefaultFactory()->CreateMessage(new TrackedSource(), 12421u, directory, reason);
}

// What the recording process actions saw: (phase, message).
std::vector<std::pair<CActionAttribute, const CMessage*>> gCalls;
const CMessage* gFailOn = nullptr;
CErrorContext* gAddTo = nullptr;
CMessage* gAddDuringIssue = nullptr;
bool gThrow = false;

bool recordCall(const Action& action, const CMessage& message) {
    gCalls.emplace_back(action.attributes, &message);
    if (gAddTo && gAddDuringIssue) {
        const size_t before = gAddTo->GetMessageCount();
        *gAddTo += gAddDuringIssue;
        EXPECT_EQ(gAddTo->GetMessageCount(), before);
        EXPECT_FALSE(gAddTo->Exists(gAddDuringIssue));
    }
    if (gThrow) throw std::runtime_error("action failed hard");
    return &message != gFailOn;
}

class ErrorContextIssue : public ::testing::Test {
protected:
    void SetUp() override {
        gCalls.clear();
        gFailOn = nullptr;
        gAddTo = nullptr;
        gAddDuringIssue = nullptr;
        gThrow = false;
        auto& actions = CMessageFactory::GetDefaultFactory()->impl()->processActions;
        saved_ = actions;
        for (CActionAttribute phase : {4u, 2u, 1u}) {
            Action action;
            action.name = "RecordCall";
            action.attributes = phase;
            action.member = &recordCall;
            actions.push_back(action);
        }
    }
    void TearDown() override { CMessageFactory::GetDefaultFactory()->impl()->processActions = saved_; }

    std::vector<Action> saved_;
};

// ---- without messages -----------------------------------------------------

TEST(ErrorContext, ANewContextHoldsTheFourErrorItemsWhichSetItemReplacesWhole) {
    CErrorContext context;
    EXPECT_FALSE(context.GetDeleteWithParent());
    EXPECT_EQ(context.GetItemCount(false), 4u);
    CContextItem* message = context.GetItem(ErrAppErrorMessage);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->GetType(), CDataItem::TypePointer);
    EXPECT_EQ(static_cast<const void*>(*message), nullptr);
    CContextItem* code = context.GetItem(ErrOSErrorCode);
    ASSERT_NE(code, nullptr);
    EXPECT_EQ(code->GetType(), CDataItem::TypeUInt);
    EXPECT_STREQ(static_cast<const char*>(*context.GetItem(ErrAppErrorText)), "");
    EXPECT_EQ(context.GetItem(ErrSQLErrorCode), nullptr);
    EXPECT_EQ(context.Format(-1), nullptr);
    EXPECT_EQ(context.Format(0), nullptr);
    EXPECT_TRUE(context.Issue());  // nothing pending: nothing can fail

    // SetItem assigns the whole item (its type too) or adds one.
    char text[] = "not a number";
    char* lvalue = text;  // the item keeps its own copy
    EXPECT_TRUE(context.SetItem(ErrOSErrorCode, CDataItem(lvalue)));
    EXPECT_EQ(context.GetItem(ErrOSErrorCode), code);  // the same item, now a string
    EXPECT_EQ(code->GetType(), CDataItem::TypeString);
    EXPECT_TRUE(code->IsOwned());
    EXPECT_NE(static_cast<const char*>(*code), static_cast<const char*>(text));
    EXPECT_STREQ(static_cast<const char*>(*code), "not a number");

    EXPECT_TRUE(context.SetItem(ErrSQLErrorCode, CDataItem(-1403)));
    EXPECT_EQ(context.GetItemCount(false), 5u);
    ASSERT_NE(context.GetItem(ErrSQLErrorCode), nullptr);
    EXPECT_EQ(static_cast<int>(*context.GetItem(ErrSQLErrorCode)), -1403);
}

TEST(ErrorContext, OSErrorTextAndItsItemLeaveErrnoAlone) {
    errno = 0;
    ASSERT_EQ(open("/nonexistent-zvlog-dir/file", O_RDONLY), -1);
    ASSERT_EQ(errno, ENOENT);
    EXPECT_EQ(CErrorContext::OSErrorCode(), static_cast<unsigned int>(ENOENT));
    EXPECT_STREQ(CErrorContext::GetContext().OSErrorText(), "No such file or directory");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_STREQ(CErrorContext::GetContext().OSErrorText(EACCES), "Permission denied");
    EXPECT_EQ(errno, ENOENT);

    // The text item follows the code item while it holds a string.
    CErrorContext context;
    context.SetItem(ErrOSErrorCode, CDataItem(static_cast<unsigned int>(EACCES)));
    CContextItem* text = context.GetItem(ErrOSErrorText);
    EXPECT_EQ(errno, ENOENT);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(static_cast<const char*>(*text), "Permission denied");
    EXPECT_FALSE(text->IsOwned());
    context.SetItem(ErrOSErrorText, CDataItem(7));
    text = context.GetItem(ErrOSErrorText);
    EXPECT_EQ(text->GetType(), CDataItem::TypeInt);
    EXPECT_EQ(static_cast<int>(*text), 7);
}

// The first use in a thread makes its context, which keeps errno and takes
// the thread's pending messages with it.
TEST(ErrorContext, EachThreadHasItsOwnContextThatEndsWithIt) {
    CErrorContext* mine = &CErrorContext::GetContext();
    EXPECT_EQ(&CErrorContext::GetContext(), mine);
    CErrorContext* theirs = nullptr;
    int errnoAfter = 0;
    const int before = gSourcesDestroyed;
    std::thread([&] {
        errno = EBADF;
        theirs = &CErrorContext::GetContext();
        errnoAfter = errno;
        *theirs += makeMessage("/thread");
    }).join();
    EXPECT_NE(theirs, nullptr);
    EXPECT_NE(theirs, mine);
    EXPECT_EQ(errnoAfter, EBADF);
    EXPECT_EQ(gSourcesDestroyed, before + 1);
}

// ---- the context of a message ---------------------------------------------

TEST(MessageContext, HoldsTimeDetailsAndItsChildrenInOrder) {
    const int before = gSourcesDestroyed;
    const time_t start = time(nullptr);
    auto* context = new CMessageContext(new TrackedSource());
    ASSERT_EQ(context->GetChildren().size(), 3u);
    EXPECT_EQ(context->GetChildren()[0], &CErrorContext::GetContext());
    EXPECT_EQ(context->GetChildren()[1], context->GetCaller());
    EXPECT_EQ(context->GetChildren()[2], getAppContext());
    EXPECT_TRUE(context->GetDeleteWithParent());

    CContextItem* time = context->GetItem(MessageTime);
    ASSERT_NE(time, nullptr);
    const timespec at = *time;
    EXPECT_LE(std::abs(at.tv_sec - start), 2);
    EXPECT_EQ(at.tv_nsec % 1000, 0);

    CContextItem* details = context->GetItem(MessageDetails);
    ASSERT_NE(details, nullptr);
    EXPECT_EQ(static_cast<std::vector<CDataItem>*>(*details), &context->GetDetails());

    context->AppendDetail(CDataItem("first"));
    context->SetDetail(3, CDataItem(42u));
    const auto& values = context->GetDetails();
    ASSERT_EQ(values.size(), 4u);
    EXPECT_STREQ(static_cast<const char*>(values[0]), "first");
    for (int i : {1, 2}) {
        EXPECT_EQ(values[i].GetType(), CDataItem::TypeInt);
        EXPECT_EQ(static_cast<int>(values[i]), 0);
    }
    EXPECT_EQ(values[3].GetType(), CDataItem::TypeUInt);
    context->SetDetails({CDataItem(1LL)});
    ASSERT_EQ(context->GetDetails().size(), 1u);
    EXPECT_EQ(context->GetDetails()[0].GetType(), CDataItem::TypeInt64);

    // The caller goes with it; the shared contexts stay.
    delete context;
    EXPECT_EQ(gSourcesDestroyed, before + 1);
    EXPECT_EQ(CErrorContext::GetContext().GetItemCount(false), 4u);
    EXPECT_NE(getAppContext()->GetItem(AppStartTime), nullptr);

    CMessageContext bare(nullptr);
    EXPECT_EQ(bare.GetChildren().size(), 2u);
}

// ---- with messages --------------------------------------------------------

TEST(ErrorContextMessages, HeldApplicationErrorIsAddedAsACopyAndClearDeletesBoth) {
    CErrorContext context;
    const int before = gSourcesDestroyed;
    CMessage* held = makeMessage("/held");
    context.SetAppErrorMessage(held);
    EXPECT_EQ(context.GetAppErrorMessage(), held);
    EXPECT_STREQ(context.GetAppErrorText(), "Unable to create the directory /held: reason");
    EXPECT_STREQ(static_cast<const char*>(*context.GetItem(ErrAppErrorText)),
                 "Unable to create the directory /held: reason");

    context += held;
    ASSERT_EQ(context.GetMessageCount(), 1u);
    EXPECT_NE(context.GetMessage(0), held);
    EXPECT_FALSE(context.Exists(held));
    EXPECT_EQ(context.GetMessage(0)->GetMessageID(), 12421u);
    EXPECT_STREQ(context.Format(0), "Unable to create the directory /held: reason");

    context.Clear();
    EXPECT_EQ(context.GetMessageCount(), 0u);
    EXPECT_EQ(context.GetAppErrorMessage(), nullptr);
    EXPECT_STREQ(static_cast<const char*>(*context.GetItem(ErrAppErrorText)), "");
    EXPECT_EQ(gSourcesDestroyed, before + 1);  // the held one's caller context

    // Replacing the held message deletes the previous one.
    context.SetAppErrorMessage(makeMessage("/a"));
    context.SetAppErrorMessage(makeMessage("/b"));
    EXPECT_EQ(gSourcesDestroyed, before + 2);
    context.ClearAppErrorMessage();
    EXPECT_EQ(gSourcesDestroyed, before + 3);
}

TEST(ErrorContextMessages, TransferMovesOwnershipInOrderAndFormatPicksByIndexNewestForNegative) {
    CErrorContext from;
    CErrorContext to;
    CMessage* a = makeMessage("/first");
    CMessage* b = makeMessage("/second");
    from += a;
    from += b;
    to.Transfer(to);
    to.Transfer(from);
    EXPECT_EQ(from.GetMessageCount(), 0u);
    ASSERT_EQ(to.GetMessageCount(), 2u);
    EXPECT_EQ(to.GetMessage(0), a);
    EXPECT_EQ(to.GetMessage(1), b);
    EXPECT_STREQ(to.Format(-1), "Unable to create the directory /second: reason");
    EXPECT_STREQ(to.Format(0), "Unable to create the directory /first: reason");
    EXPECT_EQ(to.Format(2), nullptr);
}

TEST_F(ErrorContextIssue, PassesRunFourTwoOneNewestFirstThenClear) {
    CErrorContext context;
    const int before = gSourcesDestroyed;
    CMessage* older = makeMessage("/older");
    CMessage* newer = makeMessage("/newer");
    context += older;
    context += newer;
    EXPECT_TRUE(context.Issue());
    const std::vector<std::pair<CActionAttribute, const CMessage*>> expected = {
        {4, newer}, {4, older}, {2, newer}, {2, older}, {1, newer}, {1, older}};
    EXPECT_EQ(gCalls, expected);
    EXPECT_EQ(context.GetMessageCount(), 0u);
    EXPECT_EQ(gSourcesDestroyed, before + 2);
}

TEST_F(ErrorContextIssue, AFailureFinishesThePassAndKeepsMessagesPending) {
    CErrorContext context;
    CMessage* first = makeMessage("/1");
    CMessage* second = makeMessage("/2");
    CMessage* third = makeMessage("/3");
    context += first;
    context += second;
    context += third;
    gFailOn = second;
    EXPECT_FALSE(context.Issue());
    const std::vector<std::pair<CActionAttribute, const CMessage*>> expected = {
        {4, third}, {4, second}, {4, first}};
    EXPECT_EQ(gCalls, expected);
    ASSERT_EQ(context.GetMessageCount(), 3u);
    EXPECT_EQ(context.GetMessage(0), first);
    EXPECT_EQ(context.GetMessage(2), third);
}

TEST_F(ErrorContextIssue, MessagesAddedWhileIssuingAreDropped) {
    CErrorContext context;
    context += makeMessage("/pending");
    CMessage* extra = makeMessage("/extra");
    gAddTo = &context;
    gAddDuringIssue = extra;
    EXPECT_TRUE(context.Issue());
    EXPECT_EQ(context.GetMessageCount(), 0u);
    // Neither stored nor freed: still the caller's.
    EXPECT_EQ(extra->GetMessageID(), 12421u);
    gAddTo = nullptr;

    // An action that throws must not leave the context issuing.
    context += extra;
    gThrow = true;
    try {
        context.Issue();
    } catch (const std::exception&) {
    }
    gThrow = false;
    CMessage* later = makeMessage("/later");
    context += later;
    EXPECT_TRUE(context.Exists(later));
}

}  // namespace zvtest
