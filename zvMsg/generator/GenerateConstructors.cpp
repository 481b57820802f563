// Build-time generator of the typed message constructors.
//
//   zvmsg_generate <names list> <declarations header> <definitions source>
//
// Reads the list of constructor names (zvMsg/MessageConstructors.def), splits
// each name into its argument type tokens and writes the exported
// declarations and their definitions. Every definition is one line that hands
// its arguments to the shared implementation (zvMsg/TypedMessage.h), so the
// constructors differ only in their parameter lists. A malformed list stops
// the build with the file and line of the offending name.
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Token {
    const char* name;
    const char* parameterType;  // null: the token takes no parameter
};

constexpr Token kTokens[] = {
    {"Int32", "int"},
    {"UInt32", "unsigned int"},
    {"Int64", "long long"},
    {"UInt64", "unsigned long long"},
    {"String", "const char*"},
    {"Pointer", "const void*"},
    {"DateTime", "struct timeval"},
    {"CatalogName", "const zvs::zvlib::zvapp::CDBObjName<8>&"},
    {"SchemaName", "const zvs::zvlib::zvapp::CDBObjName<7>&"},
    {"TableName", "const zvs::zvlib::zvapp::CDBObjName<1>&"},
    {"ColumnName", "const zvs::zvlib::zvapp::CDBObjName<13>&"},
    {"LoginName", "const zvs::zvlib::zvapp::CDBObjName<11>&"},
    {"ObjectName", "const zvs::zvlib::zvapp::CDBObjName<0>&"},
    {"QualTableName", "const zvs::zvlib::zvapp::CQualDBObjName<1>&"},
    {"QualObjectName", "const zvs::zvlib::zvapp::CQualDBObjName<0>&"},
    // The text of an entry without arguments (the catalog's terms).
    {"ContextItem", nullptr},
};

const Token* findToken(const std::string& name) {
    for (const Token& t : kTokens)
        if (name == t.name) return &t;
    return nullptr;
}

struct Constructor {
    std::string name;
    bool text;  // _TSTR_ rather than _MSG_
    std::vector<const Token*> tokens;
};

[[noreturn]] void fail(const std::string& where, const std::string& why) {
    std::cerr << where << ": error: " << why << '\n';
    std::exit(1);
}

std::string trim(const std::string& s) {
    const size_t first = s.find_first_not_of(" \t\r");
    if (first == std::string::npos) return "";
    return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

Constructor parse(const std::string& name, const std::string& where) {
    Constructor c{name, false, {}};
    std::string rest;
    if (name.rfind("_MSG_", 0) == 0) {
        rest = name.substr(5);
    } else if (name.rfind("_TSTR_", 0) == 0) {
        c.text = true;
        rest = name.substr(6);
        if (rest.empty()) fail(where, "a _TSTR_ constructor needs at least one token");
    } else {
        fail(where, "'" + name + "' starts with neither _MSG_ nor _TSTR_");
    }
    if (!rest.empty() && rest.back() == '_') fail(where, "'" + name + "' ends with '_'");
    std::istringstream in(rest);
    for (std::string piece; std::getline(in, piece, '_');) {
        const Token* token = findToken(piece);
        if (!token) fail(where, "unknown argument type token '" + piece + "' in " + name);
        c.tokens.push_back(token);
    }
    for (const Token* t : c.tokens)
        if (!t->parameterType && c.tokens.size() != 1) fail(where, "ContextItem must stand alone in " + name);
    return c;
}

std::string parameters(const Constructor& c) {
    std::string out = "CSourceContext* source, int number";
    int index = 0;
    for (const Token* t : c.tokens) {
        if (!t->parameterType) continue;
        out += ", ";
        out += t->parameterType;
        out += " arg" + std::to_string(++index);
    }
    if (!c.text) out += ", CMessageFactory::MessageDisposition disposition";
    return out;
}

std::string arguments(const Constructor& c) {
    std::string out = c.text ? "source, number" : "source, number, disposition";
    int index = 0;
    for (const Token* t : c.tokens)
        if (t->parameterType) out += ", arg" + std::to_string(++index);
    return out;
}

const char* returnType(const Constructor& c) { return c.text ? "const char*" : "CMessage*"; }

void write(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out.flush()) fail(path, "cannot write");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: " << argv[0] << " <names list> <declarations header> <definitions source>\n";
        return 2;
    }
    std::ifstream list(argv[1]);
    if (!list) fail(argv[1], "cannot read");

    std::vector<Constructor> constructors;
    std::set<std::string> seen;
    unsigned int messages = 0, texts = 0, lineNumber = 0;
    for (std::string line; std::getline(list, line);) {
        ++lineNumber;
        const std::string name = trim(line);
        if (name.empty() || name[0] == '#') continue;
        const std::string where = std::string(argv[1]) + ":" + std::to_string(lineNumber);
        if (!seen.insert(name).second) fail(where, "duplicate name " + name);
        constructors.push_back(parse(name, where));
        ++(constructors.back().text ? texts : messages);
    }

    const std::string banner = "// Generated by zvMsg/generator from zvMsg/MessageConstructors.def: " +
                               std::to_string(texts) + " _TSTR_ and " + std::to_string(messages) +
                               " _MSG_ constructors. Do not edit.\n";

    std::string header = banner +
                         "// Included by zvlog/zvMessage.h, which declares the types used here.\n"
                         "#pragma once\n\nextern \"C++\" {\n";
    for (const Constructor& c : constructors)
        header += std::string("ZVLOG_API ") + returnType(c) + " " + c.name + "(" + parameters(c) + ");\n";
    header += "}\n";

    std::string source = banner + "#include \"zvMsg/TypedMessage.h\"\n\n";
    for (const Constructor& c : constructors) {
        source += std::string(returnType(c)) + " " + c.name + "(" + parameters(c) + ") {\n";
        source += std::string("    return zvs::zvlib::zvlog::msg::") + (c.text ? "typedText" : "typedMessage") + "(" +
                  arguments(c) + ");\n}\n\n";
    }

    write(argv[2], header);
    write(argv[3], source);
    return 0;
}
