// The message factory: where the default catalog is found and what a broken
// one does to the process (in child processes of this program, copied into
// directories of the test's making), and, on test catalogs loaded in-process,
// both definition layouts, severities by class and code, issue limits,
// missing arguments and the processing dispositions.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unicode/putil.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "zvlog/AppContext.h"
#include "zvlog/BuildContext.h"
#include "zvlog/CatalogVersion.h"
#include "zvlog/ErrorContext.h"
#include "zvlog/Message.h"
#include "zvlog/SourceContext.h"
#include "zvlog/msg/MessageInternals.h"
#include "zvlog/msg/MessageTesting.h"

// The catalog file this program looks for is "zvfactorytest.dat".
ZVLOG_DEFINE_BUILD_CONTEXT("zvfactorytest", "1.0", "Debug", "None", "");

namespace fs = std::filesystem;
namespace msg = zvs::zvlib::zvlog::msg;

namespace {

constexpr const char* kIcuDataPath = "/nonexistent-zvlog-icu-data";

std::string appText(ContextItemID id) {
    CContextItem* item = getAppContext()->GetItem(id);
    return item && item->GetType() == CDataItem::TypeString ? static_cast<const char*>(*item) : "<none>";
}

// What a child does before main: load the default catalog and tell what it
// found, or make a message the catalog lacks. A broken catalog aborts it.
void loadScenario() {
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    CMessage* marker = CMessageFactory::GetDefaultFactory()->CreateMessage(nullptr, 10000099);
    printf("marker=%s\n", marker ? marker->Format() : "<none>");
    printf("datapath=%s\n", u_getDataDirectory());
    printf("dirs=%s|%s|%s\n", appText(DirProcessLib).c_str(), appText(ProcessExecutableDir).c_str(),
           appText(ProcessWorkingDir).c_str());
}

void missingScenario() {
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    CMessageFactory::GetDefaultFactory()->CreateMessage(nullptr, 4242);
}

const bool kScenarios = zvtest::runRequestedScenario({{"load", loadScenario}, {"missing", missingScenario}});

bool aborted(const zvtest::ChildResult& child) { return !child.exited && child.status == SIGABRT; }

// A scratch installation: home (QMR_HOME, whose legacy layout makes it
// DirProcessLib), bin (a link to this program) and cwd (the child's working
// directory).
class Installation {
public:
    Installation() {
        const fs::path self = fs::read_symlink("/proc/self/exe");
        std::string pattern = (self.parent_path() / "factory-search-XXXXXX").string();
        root_ = fs::canonical(mkdtemp(pattern.data()));
        for (const char* dir : {"home", "bin", "cwd"}) fs::create_directories(root_ / dir);
        program_ = root_ / "bin" / self.filename();
        std::error_code error;
        fs::create_hard_link(self, program_, error);
        if (error) fs::copy_file(self, program_);
    }
    ~Installation() {
        std::error_code error;
        fs::remove_all(root_, error);
    }

    fs::path dir(const char* name) const { return root_ / name; }

    // Puts a test catalog into a directory under the given file name.
    void place(const char* catalog, const char* dir, const char* fileName) const {
        fs::copy_file(fs::path(ZVLOG_TEST_CATALOGS) / catalog / "zvMessage.dat", root_ / dir / fileName,
                      fs::copy_options::overwrite_existing);
    }

    zvtest::ChildResult run(const char* scenario) const {
        return zvtest::runChild(scenario,
                                {"QMR_*", "LC_ALL=", "QMR_HOME=" + dir("home").string(),
                                 std::string("ICU_DATA=") + kIcuDataPath, "LANG=C.UTF-8"},
                                program_.string(), dir("cwd").string());
    }

private:
    fs::path root_;
    fs::path program_;
};

std::string line(const std::string& out, const std::string& key) {
    const size_t start = out.find(key + "=");
    if (start == std::string::npos) return "<no " + key + ">";
    const size_t end = out.find('\n', start);
    return out.substr(start + key.size() + 1, end - start - key.size() - 1);
}

std::string withoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

// ---- The default catalog, in child processes ---------------------------------

TEST(MessageFactorySearch, LibraryDirectoryBeatsExecutableBeatsWorkingDirectory) {
    Installation installation;
    const std::pair<const char*, const char*> places[] = {{"lib", "home"}, {"exe", "bin"}, {"cwd", "cwd"}};
    for (auto [marker, dir] : places)
        installation.place((std::string("marker-") + marker).c_str(), dir, "zvfactorytest.dat");
    for (auto [marker, dir] : places) {
        const zvtest::ChildResult child = installation.run("load");
        ASSERT_TRUE(child.succeeded()) << child.err;
        EXPECT_EQ(line(child.out, "marker"), marker);
        // Read from a file: ICU's data path stays as it was.
        EXPECT_EQ(line(child.out, "datapath").rfind(kIcuDataPath, 0), 0u);
        EXPECT_EQ(line(child.out, "datapath").find(installation.dir("home").string()), std::string::npos);
        fs::remove(installation.dir(dir) / "zvfactorytest.dat");
    }
}

TEST(MessageFactorySearch, WithoutTheApplicationsFileTheDirectoriesJoinIcusDataPath) {
    Installation installation;
    installation.place("marker-exe", "bin", "zvMessage.dat");
    installation.place("marker-cwd", "cwd", "zvMessage.dat");
    const zvtest::ChildResult child = installation.run("load");
    ASSERT_TRUE(child.succeeded()) << child.err;
    EXPECT_EQ(line(child.out, "marker"), "exe") << "ICU searches its path in order";

    // The old path (ICU_DATA, then the library's own converters beside
    // libzvlog.so, added when the library loaded), then the library,
    // executable and working directories, joined by the platform's path
    // separator.
    std::stringstream dirs(line(child.out, "dirs"));
    std::string lib, exe, cwd;
    std::getline(dirs, lib, '|');
    std::getline(dirs, exe, '|');
    std::getline(dirs, cwd, '|');
    EXPECT_EQ(withoutTrailingSlash(lib), installation.dir("home").string());
    EXPECT_EQ(withoutTrailingSlash(exe), installation.dir("bin").string());
    EXPECT_EQ(withoutTrailingSlash(cwd), installation.dir("cwd").string());
    const fs::path converters = fs::canonical("/proc/self/exe").parent_path().parent_path() / "icu";
    const std::string expected =
        std::string(kIcuDataPath) + ":" + converters.string() + ":" + lib + ":" + exe + ":" + cwd;
    EXPECT_EQ(line(child.out, "datapath").substr(0, expected.size()), expected);
}

TEST(MessageFactoryBrokenCatalog, EndsTheProcessWithTheReasonOnStandardError) {
    Installation installation;
    const std::string wrongVersion = std::string("The ICU resource bundle, 'zvMessage', is the wrong version.  "
                                                 "Expecting '") + ZVLOG_CATALOG_UUID + "' but received '";
    const struct {
        const char* catalog;  // placed in home; "" none, "-" bytes that are no catalog
        const char* scenario;
        std::string err;      // whole, or its start for the refused bytes
    } cases[] = {
        {"", "load", "Cannot load ICU resource bundle 'zvMessage', error code 2 - No such file or directory\n"},
        {"wronguuid", "load", wrongVersion + "00000000-1111-2222-3333-444444444444'.\n"},
        {"nouuid", "load", wrongVersion + "<Not Found>'.\n"},
        {"-", "load", "Cannot load ICU resource bundle '" + installation.dir("home").string() +
                          "//zvfactorytest.dat', error code "},
        {"marker-lib", "missing", "The ICU resource bundle, 'zvMessage', is missing message number 4242. Please "
                                  "ensure the bundle is the correct version.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.catalog);
        if (std::string(c.catalog) == "-")
            std::ofstream(installation.dir("home") / "zvfactorytest.dat") << "not an ICU data package at all, no";
        else if (*c.catalog)
            installation.place(c.catalog, "home", "zvfactorytest.dat");
        const zvtest::ChildResult child = installation.run(c.scenario);
        EXPECT_TRUE(aborted(child));
        EXPECT_EQ(child.err.substr(0, *c.catalog == '-' ? c.err.size() : std::string::npos), c.err);
        EXPECT_EQ(child.out, "");
    }
}

// ---- Test catalogs, in-process -------------------------------------------------

std::vector<unsigned int> gIssued;

bool recordIssue(const msg::Action&, const CMessage& message) {
    gIssued.push_back(message.GetMessageID());
    return true;
}

std::vector<std::string> gTexts;

bool recordText(const msg::Action&, const CMessage& message) {
    const char* text = message.Format();
    gTexts.push_back(text ? text : "<null>");
    return true;
}

class MessageFactoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string diagnostics;
        factory_ = msg::testing::loadFactory(ZVLOG_TEST_CATALOGS "/messages/zvtest_messages", &diagnostics);
        ASSERT_NE(factory_, nullptr) << diagnostics;
        gIssued.clear();
        gTexts.clear();
    }
    void TearDown() override { delete factory_; }

    const CMessageDefinition& definition(unsigned int number) {
        const CDataItem enough[8] = {CDataItem("x"), CDataItem("x"), CDataItem("x"), CDataItem("x"),
                                     CDataItem("x"), CDataItem("x"), CDataItem("x"), CDataItem("x")};
        CMessage* message = factory_->CreateMessageFromItems(nullptr, number, enough, 8);
        EXPECT_NE(message, nullptr) << number;
        const CMessageDefinition* result = message->GetDefinition();
        delete message;
        return *result;
    }

    std::string severityOf(unsigned int number) {
        const msg::Severity* severity = definition(number).severity;
        return severity ? severity->name : "<none>";
    }

    CMessageFactory* factory_ = nullptr;
};

TEST_F(MessageFactoryTest, LoadsSeveritiesInCatalogOrderWithTheirActions) {
    const auto& severities = factory_->impl()->severities;
    ASSERT_EQ(severities.size(), 3u);
    EXPECT_EQ(severities[0]->name, "Alpha");
    EXPECT_EQ(severities[1]->name, "Beta");
    EXPECT_EQ(severities[2]->name, "Gamma");
    ASSERT_EQ(severities[1]->actions.size(), 2u);
    EXPECT_EQ(severities[1]->actions[0].name, "Core");
    EXPECT_NE(static_cast<icu::ResourceBundle*>(*factory_), nullptr);
    EXPECT_EQ(factory_->impl()->issueLimits.size(), 2u);
}

TEST_F(MessageFactoryTest, BothDefinitionLayouts) {
    const CMessageDefinition& nine = definition(9999999);
    EXPECT_STREQ(nine.messageClass, "AA");
    EXPECT_STREQ(nine.code, "XYZ");
    EXPECT_EQ(nine.reportMask, 0x9u) << "ParallelMaster | ParallelApplier; an unknown scope adds nothing";
    ASSERT_EQ(nine.details.size(), 1u);
    EXPECT_EQ(nine.details[0].name, "Count");
    EXPECT_EQ(nine.details[0].kind, msg::MessageDetail::UInt32);
    EXPECT_EQ(nine.details[0].id, CContext::GetContextItemID("Count"));

    const CMessageDefinition& ten = definition(10000000);
    EXPECT_STREQ(ten.messageClass, "  ");
    EXPECT_STREQ(ten.code, "   ");
    EXPECT_EQ(ten.reportMask, 0u);
    EXPECT_EQ(ten.severity, nullptr);
    ASSERT_EQ(ten.details.size(), 1u);

    CMessage* message = factory_->CreateMessage(nullptr, 9999999, 7u);
    EXPECT_STREQ(message->Format(), "Nine 7");
    delete message;
    message = factory_->CreateMessage(nullptr, 10000000, 8u);
    EXPECT_STREQ(message->Format(), "Ten 8");
    delete message;

    // Only the first two and three characters count; one scope name alone works.
    EXPECT_STREQ(definition(5007).messageClass, "AA");
    EXPECT_STREQ(definition(5007).code, "XYZ");
    EXPECT_EQ(definition(5007).reportMask, 0x7fffu);
    EXPECT_EQ(definition(5008).reportMask, 0x2u);
    // Made once.
    EXPECT_EQ(&definition(5007), &definition(5007));
    // A detail of an unknown kind: no definition, no message.
    EXPECT_EQ(factory_->CreateMessage(nullptr, 5016, "x"), nullptr);
}

TEST_F(MessageFactoryTest, SeverityByClassAndCode) {
    EXPECT_EQ(severityOf(5000), "Alpha");        // class AA
    EXPECT_EQ(severityOf(9999999), "Beta");      // AA, but code XYZ is overridden
    EXPECT_EQ(severityOf(5007), "Beta");         // the same after cutting class and code
    EXPECT_EQ(severityOf(5002), "Beta");         // class BB
    EXPECT_EQ(severityOf(5003), "Gamma");        // DD has only a code entry
    EXPECT_EQ(severityOf(5004), "<none>");       // ... and nothing for its other codes
    EXPECT_EQ(severityOf(5005), "<none>");       // FF: no class, though code XYZ exists for AA
    EXPECT_EQ(severityOf(5006), "<none>");       // CC names an unknown severity
    EXPECT_EQ(severityOf(5008), "<none>");       // EEXYZ names an unknown severity
}

TEST_F(MessageFactoryTest, AnIssueLimitOfZeroSilencesOnlyWhileSuppressing) {
    factory_->impl()->findSeverity("Alpha")->actions[0].member = &recordIssue;
    ASSERT_TRUE(CMessageFactory::GetSuppressDuplicateMessages());
    // Dropped before duplicate detection: no held message, no repetition thread.
    EXPECT_EQ(CMessageFactory::ProcessMessage(factory_->CreateMessage(nullptr, 5001, "x"),
                                              CMessageFactory::IssueMessage),
              nullptr);
    EXPECT_TRUE(gIssued.empty());
    EXPECT_EQ(factory_->impl()->repetition.held, nullptr);

    factory_->SuppressDuplicateMessages(false);
    CMessageFactory::ProcessMessage(factory_->CreateMessage(nullptr, 5001, "x"), CMessageFactory::IssueMessage);
    CMessageFactory::ProcessMessage(factory_->CreateMessage(nullptr, 5000, "y"), CMessageFactory::IssueMessage);
    EXPECT_EQ(gIssued, (std::vector<unsigned int>{5001, 5000}));

    // So does the calling thread's own flag, which other threads do not share.
    factory_->SuppressDuplicateMessages(true);
    CMessageFactory::SetThreadSuppressDuplicateMessages(false);
    bool otherThread = false;
    std::thread([&] { otherThread = CMessageFactory::GetSuppressDuplicateMessages(); }).join();
    EXPECT_TRUE(otherThread);
    CMessageFactory::ProcessMessage(factory_->CreateMessage(nullptr, 5001, "x"), CMessageFactory::IssueMessage);
    CMessageFactory::SetThreadSuppressDuplicateMessages(true);
    EXPECT_EQ(gIssued, (std::vector<unsigned int>{5001, 5000, 5001}));
}

TEST_F(MessageFactoryTest, DispositionsAndTheCallersErrno) {
    EXPECT_EQ(CMessageFactory::ProcessMessage(nullptr, CMessageFactory::IssueMessage), nullptr);
    CMessage* message = factory_->CreateMessage(nullptr, 5000, "x");
    EXPECT_EQ(CMessageFactory::ProcessMessage(message, CMessageFactory::ReturnMessage), message);
    EXPECT_EQ(CMessageFactory::ProcessMessage(message, static_cast<CMessageFactory::MessageDisposition>(7)), nullptr);
    delete message;

    factory_->impl()->findSeverity("Alpha")->actions[0].member = &recordIssue;
    factory_->SuppressDuplicateMessages(false);
    errno = 1234;
    message = factory_->CreateMessage(new CSourceContext("m", "f", "fn", 1), 5000, "x");
    EXPECT_EQ(errno, 1234);
    EXPECT_EQ(CMessageFactory::ProcessMessage(message, CMessageFactory::IssueMessage), nullptr);
    EXPECT_EQ(errno, 1234);
    EXPECT_EQ(gIssued, (std::vector<unsigned int>{5000}));
}

TEST_F(MessageFactoryTest, ArgumentsAreStoredByTheirDetailsKinds) {
    char text[] = "text";
    const timeval when{1700000000, 250};
    CMessage* message = factory_->CreateMessage(new CSourceContext("module", "file", "function", 42), 5011, -1, 2u,
                                                -3LL, 4ull, text, static_cast<const void*>(text), when);
    const std::vector<CDataItem>& details = message->GetContext()->GetDetails();
    ASSERT_EQ(details.size(), 7u);
    const CDataItem::Type types[] = {CDataItem::TypeInt,    CDataItem::TypeUInt,    CDataItem::TypeInt64,
                                     CDataItem::TypeUInt64, CDataItem::TypeString,  CDataItem::TypePointer,
                                     CDataItem::TypeTimespec};
    for (size_t i = 0; i < 7; ++i) EXPECT_EQ(details[i].GetType(), types[i]) << i;
    EXPECT_EQ(details[0].GetValue().i32, -1);
    EXPECT_EQ(details[2].GetValue().i64, -3);
    EXPECT_STREQ(details[4].GetValue().str, "text");
    EXPECT_NE(details[4].GetValue().str, text) << "strings are copied";
    EXPECT_EQ(details[5].GetValue().ptr, text);
    EXPECT_EQ(details[6].GetValue().ts.tv_sec, 1700000000);
    EXPECT_EQ(details[6].GetValue().ts.tv_nsec, 250000);

    // A copy: the same number, its own source context with the same facts,
    // the same arguments and time.
    CMessage* copy = factory_->CreateMessage(message);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->GetMessageID(), 5011u);
    EXPECT_TRUE(*copy == *message);
    auto* source = dynamic_cast<CSourceContext*>(copy->GetContext()->GetCaller());
    ASSERT_NE(source, nullptr);
    EXPECT_NE(source, message->GetContext()->GetCaller());
    EXPECT_STREQ(source->GetModule(), "module");
    EXPECT_STREQ(source->GetID(), "file");
    EXPECT_STREQ(source->GetMethod(), "function");
    EXPECT_EQ(source->GetLine(), 42u);
    const timespec original = static_cast<timespec>(*message->GetContext()->GetItem(MessageTime));
    const timespec copied = static_cast<timespec>(*copy->GetContext()->GetItem(MessageTime));
    EXPECT_EQ(copied.tv_sec, original.tv_sec);
    EXPECT_EQ(copied.tv_nsec, original.tv_nsec);
    delete message;
    EXPECT_STREQ(copy->GetContext()->GetDetails()[4].GetValue().str, "text");
    delete copy;
}

TEST_F(MessageFactoryTest, MissingArgumentsRaiseMessage1425) {
    factory_->SuppressDuplicateMessages(false);
    factory_->impl()->processActions.push_back(msg::Action{"watch", 4, &recordText, nullptr});
    factory_->impl()->processActions.push_back(msg::Action{
        "source", 4,
        [](const msg::Action&, const CMessage& message) {
            auto* source = dynamic_cast<const CSourceContext*>(message.GetContext()->GetCaller());
            gTexts.push_back(source ? std::string(source->GetModule()) + " " + source->GetID() + " " +
                                          source->GetMethod() + " " + std::to_string(source->GetLine())
                                    : "<no source>");
            return true;
        },
        nullptr});

    const CDataItem one[1] = {CDataItem("first")};
    CMessage* message = factory_->CreateMessageFromItems(nullptr, 5013, one, 1);
    EXPECT_EQ(gTexts, (std::vector<std::string>{"Argument 2 (SecondName) of message 5013 is missing",
                                                "zvmsg zvlog/zvmsg CMessageFactory::CreateMessage 1226"}));
    EXPECT_STREQ(message->Format(), "first and <Missing>");
    delete message;

    gTexts.clear();
    message = factory_->CreateMessageFromItems(nullptr, 5013, nullptr, 0);
    ASSERT_EQ(gTexts.size(), 4u);
    EXPECT_EQ(gTexts[0], "Argument 1 (FirstName) of message 5013 is missing");
    EXPECT_EQ(gTexts[2], "Argument 2 (SecondName) of message 5013 is missing");
    EXPECT_STREQ(message->Format(), "<Missing> and <Missing>");
    delete message;
}

TEST_F(MessageFactoryTest, RemoveContextTakesTheHeldMessagesErrorContext) {
    EXPECT_FALSE(factory_->RemoveContext(&CErrorContext::GetContext())) << "nothing held";

    // The held message's recorded error context goes when asked.
    CMessage* held = factory_->CreateMessage(nullptr, 5000, "x");
    factory_->impl()->repetition.held = held;
    const CErrorContext* mine = &CErrorContext::GetContext();
    EXPECT_TRUE(factory_->RemoveContext(mine));
    EXPECT_FALSE(factory_->RemoveContext(mine));
    for (const CContext* child : held->GetContext()->GetChildren()) EXPECT_NE(child, mine);
}

TEST(MessageFactoryLoad, RefusesACatalogNamingAnUnknownAction) {
    std::string diagnostics;
    EXPECT_EQ(msg::testing::loadFactory(ZVLOG_TEST_CATALOGS "/badaction/zvtest_badaction", &diagnostics), nullptr);
    EXPECT_EQ(diagnostics, "The ICU resource bundle, 'zvMessage', names the unknown action 'Shout' for severity "
                           "'Loud'.\n");
}

// The library's own catalog, found beside this program.
TEST(MessageFactoryDefault, LoadsTheLibrarysCatalogOnce) {
    CMessageFactory* factory = CMessageFactory::GetDefaultFactory();
    ASSERT_NE(factory, nullptr);
    EXPECT_EQ(CMessageFactory::GetDefaultFactory(), factory);
    EXPECT_EQ(CMessageFactory::PeekDefaultFactory(), factory);
    CMessage* report = factory->CreateMessage(nullptr, 1971, "INFO", "QMR-01234", 9u);
    EXPECT_STREQ(report->GetSeverityName(), "ZVInfo");
    EXPECT_STREQ(report->Format(), "INFO message QMR-01234 was repeated 9 times");
    delete report;

    // Inside the scope fatal messages throw; outside ZVFatal is itself again.
    msg::Severity* fatal = factory->impl()->findSeverity(SeverityNames::ZVFatal);
    ASSERT_NE(fatal, nullptr);
    {
        CMessageFactory::FatalErrorAsException scope;
        EXPECT_EQ(fatal->redirect.load(), factory->impl()->findSeverity(SeverityNames::ZVException));
    }
    EXPECT_EQ(fatal->redirect.load(), nullptr);

    // A service has no console: what would be printed is stored instead.
    CMessageFactory::RunningAsService();
    msg::Severity* store = factory->impl()->findSeverity(SeverityNames::ZVStore);
    for (const char* name : {SeverityNames::ZVInfo, SeverityNames::ZVInfoNoReport, SeverityNames::ZVWarn,
                             SeverityNames::ZVWarnNoReport, SeverityNames::ZVError})
        EXPECT_EQ(factory->impl()->findSeverity(name)->redirect.load(), store) << name;
    EXPECT_EQ(fatal->redirect.load(), nullptr);
    EXPECT_FALSE(factory->impl()->suppressDuplicates.load());
}

}  // namespace
