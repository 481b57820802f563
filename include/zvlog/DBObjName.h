// Names of database objects as the programs of the suite hand them to the
// typed message constructors (zvlog/zvMessage.h). This library needs only
// their text; the template argument keeps a table name from being passed
// where a column name is expected.
#pragma once

#include <string>
#include <utility>

namespace zvs::zvlib::zvapp {

// The object kinds, the template argument of the name classes.
enum DBObjKind : int {
    DBObjObject = 0,
    DBObjTable = 1,
    DBObjSchema = 7,
    DBObjCatalog = 8,
    DBObjLogin = 11,
    DBObjColumn = 13,
};

// One unqualified name, kept as given (no case folding, no quoting).
template <int Kind>
class CDBObjName {
public:
    static constexpr int kKind = Kind;

    CDBObjName() = default;
    explicit CDBObjName(const char* text) : text_(text ? text : "") {}
    explicit CDBObjName(std::string text) : text_(std::move(text)) {}

    const std::string& GetText() const { return text_; }
    const char* c_str() const { return text_.c_str(); }
    bool empty() const { return text_.empty(); }
    bool operator==(const CDBObjName& other) const = default;

private:
    std::string text_;
};

// A name qualified by its schema and catalog, held as one text with the parts
// joined by ".". An empty catalog is left out; an empty schema is left out
// too unless a catalog precedes it, where it stays as an empty part
// ("sales..orders"), so that a part never changes position.
template <int Kind>
class CQualDBObjName {
public:
    static constexpr int kKind = Kind;

    CQualDBObjName() = default;
    // An already qualified text, kept as given.
    explicit CQualDBObjName(const char* text) : text_(text ? text : "") {}
    explicit CQualDBObjName(std::string text) : text_(std::move(text)) {}
    CQualDBObjName(const CDBObjName<DBObjSchema>& schema, const CDBObjName<Kind>& name)
        : CQualDBObjName(CDBObjName<DBObjCatalog>(), schema, name) {}
    CQualDBObjName(const CDBObjName<DBObjCatalog>& catalog, const CDBObjName<DBObjSchema>& schema,
                   const CDBObjName<Kind>& name) {
        if (!catalog.empty()) text_ = catalog.GetText() + '.';
        if (!text_.empty() || !schema.empty()) text_ += schema.GetText() + '.';
        text_ += name.GetText();
    }

    const std::string& GetText() const { return text_; }
    const char* c_str() const { return text_.c_str(); }
    bool empty() const { return text_.empty(); }
    bool operator==(const CQualDBObjName& other) const = default;

private:
    std::string text_;
};

}  // namespace zvs::zvlib::zvapp
