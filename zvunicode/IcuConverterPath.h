// The library's own ICU converters: the directory "icu" beside libzvlog.so on
// ICU's data path.
#pragma once

// Adds the directory "icu" beside libzvlog.so, when it exists, to the end of
// ICU's data path, once per process; later calls return at once. Call it
// before opening an ICU converter.
void zvUseLibraryIcuConverters();
