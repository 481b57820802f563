// Why: some character sets of the ULibCharSet table have no converter in the
// ICU data that a system ships (Debian's ICU data has neither "UTF-EBCDIC" nor
// "ibm-5233_P100-2011", the table behind "ibm-5233"). Such converters come
// with the library instead: the build compiles them into single converter
// files icu/icudt<major><l|b>/<name>.cnv beside libzvlog.so (zvlog/icu/...
// once installed), and ICU, having found no converter of that name in its
// common data, loads <dir>/icudt<major><l|b>/<name>.cnv from each directory
// <dir> of its data path. So that directory goes on the path.
//
// It is appended, after whatever the program or ICU_DATA set, so data the
// program ships itself comes first. ICU's data path is one process-wide
// setting that ICU reads without a lock whenever it loads data, so it is
// changed only once: before the first converter the library opens.
#include "zvunicode/IcuConverterPath.h"

#include <unicode/putil.h>

#include <filesystem>
#include <mutex>
#include <string>
#include <system_error>

#include "zvstd/ModuleLoader.h"

namespace {

namespace fs = std::filesystem;

// The directory libzvlog.so was loaded from; empty if unknown.
fs::path libraryDirectory() {
    const std::string library =
        zvs::zvlib::zvModulePathOf(reinterpret_cast<const void*>(&zvUseLibraryIcuConverters));
    if (library.empty()) return {};
    std::error_code error;
    fs::path path = fs::absolute(fs::path(library), error);
    return error ? fs::path() : path.parent_path();
}

void appendDirectoryBesideLibrary() {
    const fs::path library = libraryDirectory();
    if (library.empty()) return;
    std::error_code error;
    fs::path dir = library / "zvlog" / "icu";
    if (!fs::is_directory(dir, error)) dir = library / "icu";
    if (!fs::is_directory(dir, error)) return;
    const char* current = u_getDataDirectory();
    std::string path = current ? current : "";
    if (!path.empty()) path += U_PATH_SEP_CHAR;
    path += dir.string();
    u_setDataDirectory(path.c_str());
}

}  // namespace

void zvUseLibraryIcuConverters() {
    static std::once_flag once;
    std::call_once(once, appendDirectoryBesideLibrary);
}

std::string zvInstalledLibraryDataDirectory() {
    const fs::path library = libraryDirectory();
    if (library.empty()) return {};
    std::error_code error;
    const fs::path dir = library / "zvlog";
    return fs::is_directory(dir, error) ? dir.string() : std::string();
}
