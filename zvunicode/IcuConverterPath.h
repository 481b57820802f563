// The library's own data: the ICU converters it brings along and, once
// installed, its message catalog. Both are found from where libzvlog.so is.
#pragma once

#include <string>

// Adds the library's converter directory, when it exists, to the end of ICU's
// data path, once per process; later calls return at once. Call it before
// opening an ICU converter. The directory is "zvlog/icu" beside an installed
// library and "icu" beside one in its build tree.
void zvUseLibraryIcuConverters();

// The directory "zvlog" beside an installed libzvlog.so, which holds the
// catalog installed with the library; empty in the build tree (or when the
// library's own file cannot be found).
std::string zvInstalledLibraryDataDirectory();
