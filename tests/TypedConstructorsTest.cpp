// The typed message constructors (_MSG_..., _TSTR_...), the database-object
// names they take, and the library's own raised messages.
#include <gtest/gtest.h>

#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/ContextItems.h"
#include "support/LoggerCapture.h"
#include "zvlog/ErrorContext.h"
#include "zvlog/msg/MessageInternals.h"
#include "zvlog/msg/MessageTesting.h"
#include "zvlog/msg/RaiseMessage.h"
#include "zvlog/zvMessage.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;
using zvs::zvlib::zvapp::CDBObjName;
using zvs::zvlib::zvapp::CQualDBObjName;

namespace {

CSourceContext* here(unsigned int line) {
    return new CSourceContext("zvmsg.test", "tests/TypedConstructorsTest", "TypedConstructorsTest", line);
}

const std::vector<CDataItem>& detailsOf(const CMessage* m) { return m->GetContext()->GetDetails(); }

class TypedConstructorsTest : public ::testing::Test {
protected:
    void SetUp() override { CErrorContext::GetContext().Clear(); }
    void TearDown() override { CErrorContext::GetContext().Clear(); }
};

// ---- What the library exports ---------------------------------------------

// The names list beside the generator, found from this file's own path.
std::vector<std::string> listedNames() {
    const auto path = std::filesystem::path(__FILE__).parent_path().parent_path() / "zvMsg" /
                      "MessageConstructors.def";
    std::ifstream in(path);
    std::vector<std::string> names;
    for (std::string line; std::getline(in, line);) {
        line.erase(line.find_last_not_of(" \t\r") + 1);
        if (!line.empty() && line[0] != '#') names.push_back(line);
    }
    return names;
}

// The signature the demangler shows for a listed name, from its tokens.
std::string expectedSignature(const std::string& name) {
    static const std::map<std::string, std::string> kTypes = {
        {"Int32", "int"},
        {"UInt32", "unsigned int"},
        {"Int64", "long long"},
        {"UInt64", "unsigned long long"},
        {"String", "char const*"},
        {"Pointer", "void const*"},
        {"DateTime", "timeval"},
        {"CatalogName", "zvs::zvlib::zvapp::CDBObjName<8> const&"},
        {"SchemaName", "zvs::zvlib::zvapp::CDBObjName<7> const&"},
        {"TableName", "zvs::zvlib::zvapp::CDBObjName<1> const&"},
        {"ColumnName", "zvs::zvlib::zvapp::CDBObjName<13> const&"},
        {"LoginName", "zvs::zvlib::zvapp::CDBObjName<11> const&"},
        {"ObjectName", "zvs::zvlib::zvapp::CDBObjName<0> const&"},
        {"QualTableName", "zvs::zvlib::zvapp::CQualDBObjName<1> const&"},
        {"QualObjectName", "zvs::zvlib::zvapp::CQualDBObjName<0> const&"},
    };
    const bool text = name.rfind("_TSTR_", 0) == 0;
    std::string signature = name + "(CSourceContext*, int";
    std::istringstream tokens(name.substr(text ? 6 : 5));
    for (std::string token; std::getline(tokens, token, '_');) {
        if (token == "ContextItem") continue;
        const auto it = kTypes.find(token);
        if (it == kTypes.end()) return "<unknown token " + token + ">";
        signature += ", " + it->second;
    }
    return signature + (text ? ")" : ", CMessageFactory::MessageDisposition)");
}

// Every defined, default-visibility function of libzvlog.so's dynamic symbol
// table whose demangled name starts with _MSG_ or _TSTR_.
std::set<std::string> exportedConstructors() {
    Dl_info info{};
    EXPECT_NE(dladdr(reinterpret_cast<void*>(&detail::raisedMessageCount), &info), 0);
    std::ifstream in(info.dli_fname, std::ios::binary);
    const std::string image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto* header = reinterpret_cast<const Elf64_Ehdr*>(image.data());
    const auto* sections = reinterpret_cast<const Elf64_Shdr*>(image.data() + header->e_shoff);
    std::set<std::string> found;
    for (unsigned i = 0; i < header->e_shnum; ++i) {
        if (sections[i].sh_type != SHT_DYNSYM) continue;
        const char* strings = image.data() + sections[sections[i].sh_link].sh_offset;
        const auto* symbols = reinterpret_cast<const Elf64_Sym*>(image.data() + sections[i].sh_offset);
        for (size_t k = 0; k < sections[i].sh_size / sizeof(Elf64_Sym); ++k) {
            const Elf64_Sym& s = symbols[k];
            if (ELF64_ST_TYPE(s.st_info) != STT_FUNC || s.st_shndx == SHN_UNDEF ||
                ELF64_ST_VISIBILITY(s.st_other) != STV_DEFAULT)
                continue;
            int status = 0;
            char* demangled = abi::__cxa_demangle(strings + s.st_name, nullptr, nullptr, &status);
            if (!demangled) continue;
            if (!strncmp(demangled, "_MSG_", 5) || !strncmp(demangled, "_TSTR_", 6)) found.insert(demangled);
            std::free(demangled);
        }
    }
    return found;
}

TEST(TypedConstructorExports, EveryListedNameIsExportedWithItsParameters) {
    const std::vector<std::string> names = listedNames();
    std::set<std::string> expected;
    unsigned messages = 0, texts = 0;
    for (const std::string& name : names) {
        ++(name.rfind("_TSTR_", 0) == 0 ? texts : messages);
        expected.insert(expectedSignature(name));
    }
    EXPECT_EQ(texts, 66u);
    EXPECT_EQ(messages, 257u);
    EXPECT_EQ(expected.size(), 323u) << "duplicate names in the list";

    const std::set<std::string> exported = exportedConstructors();
    std::vector<std::string> missing, unexpected;
    std::set_difference(expected.begin(), expected.end(), exported.begin(), exported.end(),
                        std::back_inserter(missing));
    std::set_difference(exported.begin(), exported.end(), expected.begin(), expected.end(),
                        std::back_inserter(unexpected));
    EXPECT_TRUE(missing.empty()) << missing.size() << " not exported, first: " << missing.front();
    EXPECT_TRUE(unexpected.empty()) << unexpected.size() << " unlisted, first: " << unexpected.front();
    // Spot checks that do not depend on the list.
    EXPECT_TRUE(exported.count("_MSG_(CSourceContext*, int, CMessageFactory::MessageDisposition)"));
    EXPECT_TRUE(exported.count("_TSTR_ContextItem(CSourceContext*, int)"));
    EXPECT_TRUE(exported.count("_MSG_String_DateTime(CSourceContext*, int, char const*, timeval, "
                               "CMessageFactory::MessageDisposition)"));
}

// ---- Database-object names ------------------------------------------------

TEST(DBObjName, KeepsTextAndJoinsQualifiedParts) {
    EXPECT_EQ(CDBObjName<1>("Orders").GetText(), "Orders");
    EXPECT_STREQ(CDBObjName<13>(std::string("c1")).c_str(), "c1");
    EXPECT_STREQ(CDBObjName<0>(nullptr).c_str(), "");
    using Catalog = CDBObjName<8>;
    using Schema = CDBObjName<7>;
    using Table = CDBObjName<1>;
    EXPECT_EQ(CQualDBObjName<1>(Catalog("sales"), Schema("dbo"), Table("orders")).GetText(), "sales.dbo.orders");
    EXPECT_EQ(CQualDBObjName<1>(Catalog(""), Schema("dbo"), Table("orders")).GetText(), "dbo.orders");
    EXPECT_EQ(CQualDBObjName<1>(Catalog("sales"), Schema(""), Table("orders")).GetText(), "sales..orders");
    EXPECT_EQ(CQualDBObjName<1>(Schema(""), Table("orders")).GetText(), "orders");
    EXPECT_EQ(CQualDBObjName<0>("a.b.c").GetText(), "a.b.c");
}

// ---- Making messages ------------------------------------------------------

TEST_F(TypedConstructorsTest, MsgReturnsTheMessageWithTypedDetails) {
    CMessage* m = _MSG_Int32(here(__LINE__), 1525, -7, CMessageFactory::ReturnMessage);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->GetMessageID(), 1525u);
    ASSERT_EQ(detailsOf(m).size(), 1u);
    EXPECT_EQ(detailsOf(m)[0].GetType(), CDataItem::TypeInt);
    EXPECT_EQ(static_cast<int>(detailsOf(m)[0]), -7);
    delete m;

    // Every other kind, in parameter order (the factory keeps surplus items).
    m = _MSG_UInt32_Int64_String(here(__LINE__), 1525, 4000000000u, -5000000000LL, "s", CMessageFactory::ReturnMessage);
    ASSERT_EQ(detailsOf(m).size(), 3u);
    EXPECT_EQ(detailsOf(m)[0].GetType(), CDataItem::TypeUInt);
    EXPECT_EQ(static_cast<unsigned int>(detailsOf(m)[0]), 4000000000u);
    EXPECT_EQ(detailsOf(m)[1].GetType(), CDataItem::TypeInt64);
    EXPECT_EQ(static_cast<long long>(detailsOf(m)[1]), -5000000000LL);
    delete m;
    m = _MSG_String_DateTime(here(__LINE__), 1525, "s", timeval{5, 7}, CMessageFactory::ReturnMessage);
    EXPECT_TRUE(detailsOf(m).at(1) == (timespec{5, 7000}));
    delete m;
    int target = 0;
    m = _MSG_UInt32_Pointer(here(__LINE__), 1525, 1u, &target, CMessageFactory::ReturnMessage);
    EXPECT_EQ(static_cast<const void*>(detailsOf(m).at(1)), &target);
    delete m;
    m = _MSG_String_UInt64(here(__LINE__), 1525, "s", ~0ull, CMessageFactory::ReturnMessage);
    EXPECT_EQ(detailsOf(m).at(1).GetType(), CDataItem::TypeUInt64);
    EXPECT_EQ(static_cast<unsigned long long>(detailsOf(m).at(1)), ~0ull);
    delete m;

    // Names are stored as their text, and a string is the message's own copy.
    char path[] = "/var/log/one.log";
    m = _MSG_String(here(__LINE__), 1525, path, CMessageFactory::ReturnMessage);
    ASSERT_NE(m, nullptr);
    path[1] = 'X';
    EXPECT_STREQ(static_cast<const char*>(detailsOf(m)[0]), "/var/log/one.log");
    delete m;
    const CQualDBObjName<1> table(CDBObjName<8>("sales"), CDBObjName<7>("dbo"), CDBObjName<1>("orders"));
    m = _MSG_QualTableName(here(__LINE__), 1525, table, CMessageFactory::ReturnMessage);
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(detailsOf(m).size(), 1u);
    EXPECT_EQ(detailsOf(m)[0].GetType(), CDataItem::TypeString);
    EXPECT_STREQ(static_cast<const char*>(detailsOf(m)[0]), "sales.dbo.orders");
    EXPECT_STREQ(m->Format(), "Unable to open the log file sales.dbo.orders");
    delete m;
}

TEST_F(TypedConstructorsTest, CallerErrnoIsRecordedAndKept) {
    CErrorContext& context = CErrorContext::GetContext();
    errno = EACCES;
    CMessage* m = _MSG_String(here(__LINE__), 1525, "/root/x.log", CMessageFactory::ReturnMessage);
    EXPECT_EQ(errno, EACCES);
    const CContextItem* code = context.GetItem(ErrOSErrorCode);
    ASSERT_NE(code, nullptr);
    EXPECT_EQ(code->GetType(), CDataItem::TypeUInt);
    EXPECT_EQ(static_cast<unsigned int>(*code), static_cast<unsigned int>(EACCES));
    delete m;

    errno = ENOSPC;
    _TSTR_String(here(__LINE__), 1525, "/full/x.log");
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(static_cast<unsigned int>(*context.GetItem(ErrOSErrorCode)), static_cast<unsigned int>(ENOSPC));
}

TEST_F(TypedConstructorsTest, TstrFormatsAndLeavesNoMessage) {
    const size_t pending = CErrorContext::GetContext().GetMessageCount();
    EXPECT_STREQ(_TSTR_String(here(__LINE__), 1525, "/var/log/app.log"),
                 "Unable to open the log file /var/log/app.log");
    EXPECT_STREQ(_TSTR_ColumnName(here(__LINE__), 1525, CDBObjName<13>("c1")), "Unable to open the log file c1");
    EXPECT_STREQ(_TSTR_String_UInt32(here(__LINE__), 12420, "QMR_HOME", 240u),
                 "The path of QMR_HOME is too long; it must be shorter than 240 characters");
    // The catalog's terms: an entry without arguments.
    EXPECT_STREQ(_TSTR_ContextItem(here(__LINE__), 10000030), "table");
    EXPECT_EQ(CErrorContext::GetContext().GetMessageCount(), pending);
}

TEST_F(TypedConstructorsTest, TextsLiveInTheThreadsRingOfSixteen) {
    const char* first = _TSTR_String(here(__LINE__), 1525, "/t/0");
    for (unsigned i = 1; i < 16; ++i) _TSTR_String(here(__LINE__), 1525, ("/t/" + std::to_string(i)).c_str());
    EXPECT_TRUE(msg::testing::recentTextHeld(first));
    EXPECT_STREQ(first, "Unable to open the log file /t/0");
    _TSTR_String(here(__LINE__), 1525, "/t/16");
    EXPECT_FALSE(msg::testing::recentTextHeld(first)) << "the seventeenth text frees the first";
}

// ---- Issuing and the library's own raised messages ------------------------

class IssuedMessagesTest : public TypedConstructorsTest {
protected:
    std::vector<std::string> logged() const { return capture_.messages(); }
    zvtest::LoggerCapture capture_{"zvmsg.action", LEVEL_INFO};
};

TEST_F(IssuedMessagesTest, IssuedAndRaisedMessagesLogTheCatalogTextOrAreStored) {
    EXPECT_EQ(_MSG_String(here(__LINE__), 1525, "/a/issued.log", CMessageFactory::IssueMessage), nullptr);
    const unsigned long long before = detail::raisedMessageCount(1525);
    errno = EIO;
    detail::raiseMessage(1525, {"zvlog.std", "zvlog/zvlog", "FileAppender::openFile", 42}, {"/b/raised.log"});
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(detail::raisedMessageCount(1525), before + 1);
    EXPECT_EQ(logged(), (std::vector<std::string>{"QMR-01525: Unable to open the log file /a/issued.log",
                                                  "QMR-01525: Unable to open the log file /b/raised.log"}));

    CErrorContext& context = CErrorContext::GetContext();
    detail::raiseMessage(12420, {"zvsca", "zvsca/FilesysHierarchy", "FilesysHierarchy::FilesysHierarchy", 191},
                         {"QMR_HOME", 240u}, detail::RaiseMode::Store);
    EXPECT_EQ(logged().size(), 2u) << "stored, not issued";
    ASSERT_EQ(context.GetMessageCount(), 1u);
    EXPECT_EQ(context.GetMessage(0)->GetMessageID(), 12420u);
    EXPECT_STREQ(context.Format(-1), "The path of QMR_HOME is too long; it must be shorter than 240 characters");
    const CContext* source = context.GetMessage(0)->GetContext()->GetCaller();
    ASSERT_NE(source, nullptr);
    EXPECT_EQ(zvtest::itemText(*source, SourceMethod), "FilesysHierarchy::FilesysHierarchy");
    EXPECT_EQ(zvtest::itemNumber(*source, SourceLine), 191u);
}

// An action that raises again, as a failing log write would.
std::atomic<int> reraises{0};
bool reraise(const msg::IssueRecord&) {
    const std::string path = "/nested/" + std::to_string(++reraises);
    detail::raiseMessage(1525, {"zvlog.test", "tests/TypedConstructorsTest", "reraise", 1}, {path.c_str()});
    return true;
}

TEST_F(IssuedMessagesTest, ARaiseThatRaisesAgainEndsOnStandardError) {
    CMessageFactory::Impl& factory = *CMessageFactory::GetDefaultFactory()->impl();
    msg::Action action;
    action.name = "TestReraise";
    action.plain = &reraise;
    factory.processActions.push_back(action);
    reraises = 0;
    testing::internal::CaptureStderr();
    detail::raiseMessage(1525, {"zvlog.test", "tests/TypedConstructorsTest", "outer", 1}, {"/nested/0"});
    const std::string err = testing::internal::GetCapturedStderr();
    factory.processActions.pop_back();

    EXPECT_EQ(reraises, 2) << "the outer raise and one nested raise went through the factory";
    EXPECT_EQ(logged(), (std::vector<std::string>{"QMR-01525: Unable to open the log file /nested/1",
                                                  "QMR-01525: Unable to open the log file /nested/0"}));
    EXPECT_NE(err.find("QMR-01525: zvlog.test tests/TypedConstructorsTest reraise line 1: '/nested/2'"),
              std::string::npos)
        << err;
}

}  // namespace
