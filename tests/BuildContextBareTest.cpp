// A program that exports none of the BuildContext_... variables, though it
// links with -rdynamic and the library exports its own nine: its build context
// holds only the program string and type.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "support/ContextItems.h"
#include "zvlog/AppContext.h"
#include "zvstd/ModuleLoader.h"

using zvtest::itemNumber;
using zvtest::itemText;

extern "C" {
__attribute__((visibility("default"))) int zvtestExportedMarker = 42;
}

TEST(BuildContextBare, HoldsOnlyTheProgramStringAndType) {
    CBuildContext build;
    EXPECT_EQ(build.GetItemCount(false), 2u);
    EXPECT_EQ(itemText(build, BuildProgramString),
              "ZV Replicator Unknown Application - please modify zvlog/msgContext");
    EXPECT_EQ(itemNumber(build, BuildProgramType), 0u);
    EXPECT_EQ(build.GetItem(BuildApplication), nullptr);
    EXPECT_EQ(build.GetItem(BuildDateTime), nullptr);

    // The same through the application context.
    EXPECT_EQ(itemText(*getAppContext(), BuildProgramString),
              "ZV Replicator Unknown Application - please modify zvlog/msgContext");
}

TEST(BuildContextBare, TheLibrarysOwnVariablesAreExportedButNotTheProgramsVariables) {
    // The global scope does find the library's variables...
    auto* application = static_cast<const char* const*>(dlsym(RTLD_DEFAULT, "BuildContext_BuildApplication"));
    ASSERT_NE(application, nullptr);
    EXPECT_STREQ(*application, "zvlog");
    auto* os = static_cast<const char* const*>(dlsym(RTLD_DEFAULT, "BuildContext_BuildOS"));
    ASSERT_NE(os, nullptr);
    EXPECT_STREQ(*os, "Linux");
    auto* dateTime = static_cast<const long long*>(dlsym(RTLD_DEFAULT, "BuildContext_BuildDateTime"));
    ASSERT_NE(dateTime, nullptr);
    EXPECT_GT(*dateTime, 1600000000LL);

    // ...but they are not the main program's.
    void* program = zvs::zvlib::zvLoadModule(nullptr);
    ASSERT_NE(program, nullptr);
    EXPECT_EQ(zvs::zvlib::zvFindSymbol(program, "BuildContext_BuildApplication"), nullptr);
    EXPECT_EQ(zvs::zvlib::zvFindSymbol(program, "zvtestExportedMarker"), &zvtestExportedMarker);
    EXPECT_EQ(zvs::zvlib::zvFindSymbol(program, "zvtestNoSuchSymbol"), nullptr);
    zvs::zvlib::zvUnloadModule(program);
}
