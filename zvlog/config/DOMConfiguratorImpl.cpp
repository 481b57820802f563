#include "zvlog/config/DOMConfiguratorImpl.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/LocalFileInputSource.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/EntityResolver.hpp>
#include <xercesc/sax/ErrorHandler.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/SecurityManager.hpp>
#include <xercesc/util/TransService.hpp>
#include <xercesc/util/XMLException.hpp>
#include <xercesc/util/XMLString.hpp>

#include "zvlog/AppContext.h"
#include "zvlog/DOMConfigurator.h"
#include "zvlog/ErrorContext.h"
#include "zvlog/FileAppender.h"
#include "zvlog/Logger.h"
#include "zvlog/Message.h"
#include "zvlog/SyslogAppender.h"
#include "zvlog/WriterAppender.h"
#include "zvlog/core/Library.h"
#include "zvlog/msg/MessageInternals.h"
#include "zvlog/msg/RaiseMessage.h"
#include "zvstd/Fatal.h"

namespace zvs::zvlib::zvlog {

using MultiThreading::Event;
using MultiThreading::Mutex;
using MultiThreading::MutexLock;
using MultiThreading::Thread;
namespace xml = XERCES_CPP_NAMESPACE;

namespace {

constexpr const char* kComponent = "zvlog.DOMConfiguratorImpl";
constexpr const char* kFile = "zvlog/DOMConfiguratorImpl";
constexpr const char* kLoadConfiguration = "zvs::zvlib::zvlog::DOMConfiguratorImpl::loadConfiguration";
constexpr const char* kGetLevel = "zvs::zvlib::zvlog::DOMConfiguratorImpl::getLevel";
constexpr const char* kLoadParams = "zvs::zvlib::zvlog::DOMConfiguratorImpl::loadParams";
constexpr const char* kLoadAppender = "zvs::zvlib::zvlog::DOMConfiguratorImpl::loadAppender";
constexpr const char* kLoadLayout = "zvs::zvlib::zvlog::DOMConfiguratorImpl::loadLayout";
constexpr const char* kLoadFilter = "zvs::zvlib::zvlog::DOMConfiguratorImpl::loadFilter";
constexpr const char* kLoadLogger = "zvs::zvlib::zvlog::DOMConfiguratorImpl::loadLogger";
constexpr const char* kConfigure = "zvs::zvlib::zvlog::DOMConfiguratorImpl::configure";
constexpr const char* kConfigureAndWatch = "zvs::zvlib::zvlog::DOMConfiguratorImpl::configureAndWatch";
constexpr const char* kWatchThread = "zvs::zvlib::zvlog::DOMConfiguratorImpl::watchThread";

// Entities expanded in one document at most. A configuration needs none; a
// few are allowed, while a document of nested entities ("billion laughs") is
// refused long before it costs anything.
constexpr XMLSize_t kEntityExpansionLimit = 10000;

void raise(unsigned int number, const char* function, unsigned int line,
           std::initializer_list<detail::MessageArgument> arguments = {}) {
    detail::raiseMessage(number, {kComponent, kFile, function, line}, arguments);
}

// ---- Process-wide state ------------------------------------------------

struct ProcessDirectories {
    std::string executableDir;
    std::string workingDir;
};

ProcessDirectories& processDirectories() {
    static ProcessDirectories directories;
    return directories;
}

// The Xerces platform (default locale) and the two directories that relative
// names are looked for in, once, when the first configurator is made.
void initializeOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        try {
            xml::XMLPlatformUtils::Initialize();
        } catch (...) {
            // Parsing then fails with message 1534 for each document.
        }
        ProcessDirectories& d = processDirectories();
        d.executableDir = getAppContextText(ProcessExecutableDir);
        d.workingDir = getAppContextText(ProcessWorkingDir);
    });
}

// Recursive: loading a document may reset the configuration, which applies
// the drop-in files again, on the same thread.
Mutex& configurationMutex() {
    static Mutex* const m = new Mutex(Mutex::Recursive);
    return *m;
}

// The appenders that configurations made, by name: these are the ones a
// later definition of the same name destroys. An appender that the program
// made itself is replaced on the loggers but left to its owner. Guarded by
// the configuration mutex.
std::map<std::string, Appender*>& configuredAppenders() {
    static auto* const appenders = new std::map<std::string, Appender*>();
    return *appenders;
}

// The appender a name refers to: the one a configuration made under that
// name, else the first of the program's own.
Appender* appenderNamed(const std::string& name) {
    auto it = configuredAppenders().find(name);
    if (it != configuredAppenders().end()) return it->second;
    return Appender::findAppender(name.c_str());
}

// ---- Text helpers ------------------------------------------------------

std::string narrow(const XMLCh* text) {
    if (!text || !*text) return std::string();
    try {
        xml::TranscodeToStr utf8(text, "UTF-8");
        return std::string(reinterpret_cast<const char*>(utf8.str()), utf8.length());
    } catch (...) {
        char* local = xml::XMLString::transcode(text);
        std::string out = local ? local : "";
        xml::XMLString::release(&local);
        return out;
    }
}

bool sameWord(const std::string& a, const char* b) { return strcasecmp(a.c_str(), b) == 0; }

std::string tagOf(const xml::DOMElement* e) { return narrow(e->getTagName()); }

// An attribute by name, without regard to case; present tells whether the
// element has it at all.
std::string attribute(const xml::DOMElement* e, const char* name, bool* present = nullptr) {
    if (present) *present = false;
    const xml::DOMNamedNodeMap* attributes = e->getAttributes();
    if (!attributes) return std::string();
    for (XMLSize_t i = 0; i < attributes->getLength(); ++i) {
        const xml::DOMNode* a = attributes->item(i);
        if (!sameWord(narrow(a->getNodeName()), name)) continue;
        if (present) *present = true;
        return narrow(a->getNodeValue());
    }
    return std::string();
}

const xml::DOMElement* nextElement(const xml::DOMNode* node, const char* tag) {
    for (; node; node = node->getNextSibling()) {
        if (node->getNodeType() != xml::DOMNode::ELEMENT_NODE) continue;
        auto* e = static_cast<const xml::DOMElement*>(node);
        if (sameWord(tagOf(e), tag)) return e;
    }
    return nullptr;
}

const xml::DOMElement* firstChild(const xml::DOMElement* parent, const char* tag) {
    return nextElement(parent->getFirstChild(), tag);
}

const xml::DOMElement* nextSibling(const xml::DOMElement* e, const char* tag) {
    return nextElement(e->getNextSibling(), tag);
}

// The leading decimal digits as an unsigned number; 0 without digits and 0,
// on purpose, for a number that does not fit in 32 bits.
unsigned int leadingNumber(const std::string& text) {
    unsigned long long value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') break;
        value = value * 10 + static_cast<unsigned>(c - '0');
        if (value > 0xFFFFFFFFull) return 0;
    }
    return static_cast<unsigned int>(value);
}

bool isTrue(const std::string& text) { return sameWord(text, "true"); }

// Parameters by name without regard to case, visited in ascending order of
// that name; a later one of the same name replaces the earlier.
struct CaseLess {
    bool operator()(const std::string& a, const std::string& b) const { return strcasecmp(a.c_str(), b.c_str()) < 0; }
};
struct Param {
    std::string name;  // as written by the last definition
    std::string value;
};
using Params = std::map<std::string, Param, CaseLess>;

// ---- Parsing -----------------------------------------------------------

// Every external entity and DTD reads as empty: a configuration never makes
// the parser open another file or go to the network.
class EmptyEntityResolver : public xml::EntityResolver {
public:
    xml::InputSource* resolveEntity(const XMLCh* const /*publicId*/, const XMLCh* const systemId) override {
        static const XMLByte nothing[1] = {0};
        return new xml::MemBufInputSource(nothing, 0, systemId ? systemId : u"", false);
    }
};

// A fatal error ends the parse as an exception, which names the document's
// line; the parser would otherwise stop silently and hand over what it had
// built so far. Errors of validity do not arise: nothing is validated.
class FatalErrorHandler : public xml::ErrorHandler {
public:
    void warning(const xml::SAXParseException&) override {}
    void error(const xml::SAXParseException&) override {}
    void fatalError(const xml::SAXParseException& e) override { throw e; }
    void resetErrors() override {}
};

struct ParseFailure {
    unsigned int line = 0;
    std::string text;
};

// ---- Loading -----------------------------------------------------------

class Loader {
public:
    explicit Loader(LoggerRepository* repository) : repository_(repository) {}
    ~Loader() {
        for (Appender* a : retired_) delete a;
    }

    void loadConfiguration(const xml::DOMDocument* document);

private:
    unsigned char getLevel(const std::string& text, bool present, const char* item);
    // Reads the param children until one lacks its name or value (message
    // 1113): what was read before it is used.
    void loadParams(const xml::DOMElement* element, Params& params);
    bool loadAppender(const xml::DOMElement* element);
    bool loadLayout(const xml::DOMElement* element, const std::string& appenderName, Layout*& layout);
    bool loadFilter(const xml::DOMElement* element, const std::string& appenderName, Filter*& filter);
    bool loadLogger(const xml::DOMElement* element, bool isRoot);

    // While no logger can deliver: what the replaced appender still holds
    // (its delivery thread's queue, its file buffer) goes out now, before the
    // new appender of its name writes anything.
    void retire(Appender* old) {
        old->setAsynchronous(false);
        if (auto* file = dynamic_cast<FileAppender*>(old)) file->flush();
        retired_.push_back(old);
    }

    LoggerRepository* repository_;
    // Appenders replaced by this load, destroyed once every lock is released.
    std::vector<Appender*> retired_;
};

unsigned char Loader::getLevel(const std::string& text, bool present, const char* item) {
    static constexpr struct {
        const char* name;
        unsigned char level;
    } kLevels[] = {{"INHERIT", LEVEL_INHERIT}, {"ALL", LEVEL_ALL},     {"DATA", LEVEL_DATA},
                   {"DEBUG", LEVEL_DEBUG},     {"INFO", LEVEL_INFO},   {"WARN", LEVEL_WARN},
                   {"ERROR", LEVEL_ERROR},     {"FATAL", LEVEL_FATAL}, {"OFF", LEVEL_OFF}};
    if (present)
        for (const auto& l : kLevels)
            if (sameWord(text, l.name)) return l.level;
    raise(1113, kGetLevel, __LINE__, {text, item});
    return LEVEL_INHERIT;
}

void Loader::loadParams(const xml::DOMElement* element, Params& params) {
    for (const xml::DOMElement* p = firstChild(element, "param"); p; p = nextSibling(p, "param")) {
        const std::string name = attribute(p, "name");
        const std::string value = attribute(p, "value");
        if (name.empty()) {
            raise(1113, kLoadParams, __LINE__, {name, "param.name"});
            return;
        }
        if (value.empty()) {
            raise(1113, kLoadParams, __LINE__, {value, "param.value"});
            return;
        }
        params[name] = Param{name, value};
    }
}

enum class AppenderClass { Console, File, Rolling, DailyRolling, Syslog, RemoteSyslog };

bool appenderClass(const std::string& name, AppenderClass& out) {
    static constexpr struct {
        const char* name;
        AppenderClass kind;
    } kClasses[] = {{"ConsoleAppender", AppenderClass::Console},
                    {"FileAppender", AppenderClass::File},
                    {"RollingFileAppender", AppenderClass::Rolling},
                    {"DailyRollingFileAppender", AppenderClass::DailyRolling},
                    {"SyslogAppender", AppenderClass::Syslog},
                    {"RemoteSyslogAppender", AppenderClass::RemoteSyslog}};
    for (const auto& c : kClasses)
        if (sameWord(name, c.name)) {
            out = c.kind;
            return true;
        }
    return false;
}

Appender* makeAppender(AppenderClass kind) {
    switch (kind) {
    case AppenderClass::Console:
        return new ConsoleAppender(stdout);
    case AppenderClass::File:
        return new FileAppender("");
    case AppenderClass::Rolling:
        return new RollingFileAppender("");
    case AppenderClass::DailyRolling:
        return new DailyRollingFileAppender("");
    case AppenderClass::Syslog:
    case AppenderClass::RemoteSyslog:
        return new SyslogAppender("");
    }
    return nullptr;
}

// Applies one parameter; false when the class does not know it.
bool applyParam(Appender* appender, AppenderClass kind, const Param& p) {
    const std::string& n = p.name;
    const std::string& v = p.value;
    if (sameWord(n, "Asynchronous") && kind != AppenderClass::Syslog && kind != AppenderClass::RemoteSyslog) {
        appender->setAsynchronous(isTrue(v));
        return true;
    }
    if (kind == AppenderClass::File || kind == AppenderClass::Rolling || kind == AppenderClass::DailyRolling) {
        auto* file = static_cast<FileAppender*>(appender);
        if (sameWord(n, "File")) {
            file->setFile(v.c_str());
            return true;
        }
        if (sameWord(n, "Append")) {
            file->setAppend(isTrue(v));
            return true;
        }
        if (sameWord(n, "BufferedIO")) {
            file->setBufferedIO(isTrue(v));
            return true;
        }
        if (sameWord(n, "BufferSize")) {
            file->setBufferSize(leadingNumber(v));
            return true;
        }
    }
    if (kind == AppenderClass::Rolling) {
        auto* rolling = static_cast<RollingFileAppender*>(appender);
        if (sameWord(n, "MaxFileSize")) {
            rolling->setMaxFileSize(v.c_str());
            return true;
        }
        if (sameWord(n, "MaxBackupIndex")) {
            rolling->setMaxBackupIndex(static_cast<int>(leadingNumber(v)));
            return true;
        }
    }
    if (kind == AppenderClass::DailyRolling && sameWord(n, "DatePattern")) {
        static_cast<DailyRollingFileAppender*>(appender)->setDatePattern(v.c_str());
        return true;
    }
    if (kind == AppenderClass::Syslog || kind == AppenderClass::RemoteSyslog) {
        auto* syslog = static_cast<SyslogAppender*>(appender);
        if (kind == AppenderClass::RemoteSyslog && sameWord(n, "SyslogHost")) {
            syslog->setSyslogHost(v.c_str());
            return true;
        }
        if (sameWord(n, "Facility")) {
            if (sameWord(v, "Security"))
                syslog->setFacility(FACILITY_SECURITY);
            else if (sameWord(v, "Application"))
                syslog->setFacility(FACILITY_APPLICATION);
            return true;
        }
    }
    return false;
}

bool Loader::loadLayout(const xml::DOMElement* element, const std::string& appenderName, Layout*& layout) {
    layout = nullptr;
    const std::string cls = attribute(element, "class");
    if (cls.empty()) {
        raise(1113, kLoadLayout, __LINE__, {cls, "layout.class"});
        return false;
    }
    Params params;
    loadParams(element, params);
    const bool binary = sameWord(cls, "BinaryLayout");
    if (!binary && !sameWord(cls, "PatternLayout")) {
        raise(1538, kLoadLayout, __LINE__, {appenderName, cls});
        return false;
    }
    bool unknown = false;
    std::string pattern = PatternLayout::DEFAULT_CONVERSION_PATTERN;
    for (const auto& [key, p] : params) {
        if (!binary && sameWord(p.name, "Pattern")) {
            pattern = p.value;
            continue;
        }
        raise(1539, kLoadLayout, __LINE__, {appenderName, cls, p.name});
        unknown = true;
    }
    if (unknown) return false;
    if (binary)
        layout = new BinaryLayout();
    else
        layout = new PatternLayout(pattern.c_str());
    return true;
}

bool Loader::loadFilter(const xml::DOMElement* element, const std::string& appenderName, Filter*& filter) {
    filter = nullptr;
    const std::string cls = attribute(element, "class");
    if (cls.empty()) {
        raise(1113, kLoadFilter, __LINE__, {cls, "filter.class"});
        return false;
    }
    Params params;
    loadParams(element, params);

    std::unique_ptr<Filter> made;
    if (sameWord(cls, "DenyAllFilter"))
        made = std::make_unique<DenyAllFilter>();
    else if (sameWord(cls, "LevelMatchFilter"))
        made = std::make_unique<LevelMatchFilter>();
    else if (sameWord(cls, "LevelRangeFilter"))
        made = std::make_unique<LevelRangeFilter>();
    else if (sameWord(cls, "StringMatchFilter"))
        made = std::make_unique<StringMatchFilter>();
    else if (sameWord(cls, "ThreadNameMatchFilter"))
        made = std::make_unique<ThreadNameMatchFilter>();
    if (!made) {
        raise(1540, kLoadFilter, __LINE__, {appenderName, cls});
        return false;
    }

    bool unknown = false;
    for (const auto& [key, p] : params) {
        auto* match = dynamic_cast<MatchFilter*>(made.get());
        bool known = false;
        if (match && sameWord(p.name, "AcceptOnMatch")) {
            match->setAcceptOnMatch(isTrue(p.value));
            known = true;
        } else if (auto* f = dynamic_cast<LevelMatchFilter*>(made.get()); f && sameWord(p.name, "LevelToMatch")) {
            f->setLevelToMatch(getLevel(p.value, true, "LevelToMatch"));
            known = true;
        } else if (auto* r = dynamic_cast<LevelRangeFilter*>(made.get()); r && sameWord(p.name, "LevelToMatchMin")) {
            r->setLevelToMatchMin(getLevel(p.value, true, "LevelToMatchMin"));
            known = true;
        } else if (r && sameWord(p.name, "LevelToMatchMax")) {
            r->setLevelToMatchMax(getLevel(p.value, true, "LevelToMatchMax"));
            known = true;
        } else if (auto* s = dynamic_cast<StringMatchFilter*>(made.get()); s && sameWord(p.name, "StringToMatch")) {
            s->setStringToMatch(p.value.c_str());
            known = true;
        }
        if (!known) {
            raise(1541, kLoadFilter, __LINE__, {appenderName, cls, p.name});
            unknown = true;
        }
    }
    if (unknown) return false;
    filter = made.release();
    return true;
}

bool Loader::loadAppender(const xml::DOMElement* element) {
    const std::string name = attribute(element, "name");
    const std::string cls = attribute(element, "class");
    if (name.empty()) {
        raise(1113, kLoadAppender, __LINE__, {name, "appender.name"});
        return false;
    }
    if (cls.empty()) {
        raise(1113, kLoadAppender, __LINE__, {cls, "appender.class"});
        return false;
    }
    Params params;
    loadParams(element, params);

    AppenderClass kind;
    if (!appenderClass(cls, kind)) {
        raise(1536, kLoadAppender, __LINE__, {name, cls});
        return false;
    }
    std::unique_ptr<Appender> appender(makeAppender(kind));
    // Nameless until it is complete, so that no lookup by name finds it.
    appender->setName("");

    bool unknown = false;
    std::string maxFileSizeText;
    for (const auto& [key, p] : params) {
        if (!applyParam(appender.get(), kind, p)) {
            raise(1537, kLoadAppender, __LINE__, {name, cls, p.name});
            unknown = true;
        } else if (sameWord(p.name, "MaxFileSize")) {
            maxFileSizeText = p.value;
        }
    }
    if (unknown) return false;

    if (const xml::DOMElement* level = firstChild(element, "level")) {
        bool present = false;
        const std::string value = attribute(level, "value", &present);
        appender->setThreshold(getLevel(value, present, "level.value"));
    }

    Layout* layout = nullptr;
    if (const xml::DOMElement* l = firstChild(element, "layout"))
        if (!loadLayout(l, name, layout)) return false;
    appender->setLayout(layout);  // the appender destroys it from here on

    for (const xml::DOMElement* f = firstChild(element, "filter"); f; f = nextSibling(f, "filter")) {
        Filter* filter = nullptr;
        if (!loadFilter(f, name, filter)) return false;
        appender->addFilter(filter);
    }

    if (layout && dynamic_cast<BinaryLayout*>(layout)) {
        if (kind == AppenderClass::Rolling) {
            const unsigned int max = static_cast<RollingFileAppender*>(appender.get())->getMaxFileSize();
            if (max != 0 && max < 1048576) raise(1730, kLoadAppender, __LINE__, {name, maxFileSizeText, "1MB"});
        }
        if (appender->getFilter()) {
            raise(1731, kLoadAppender, __LINE__, {name});
            return false;
        }
    }

    Appender* made = appender.release();
    if (Appender* old = appenderNamed(name)) {
        repository_->replaceAppender(old, made);
        auto it = configuredAppenders().find(name);
        if (it != configuredAppenders().end() && it->second == old) retire(old);
    }
    configuredAppenders()[name] = made;
    made->setName(name.c_str());
    made->setEnabled(!sameWord(attribute(element, "enabled"), "false"));
    return true;
}

bool Loader::loadLogger(const xml::DOMElement* element, bool isRoot) {
    Logger* logger = nullptr;
    const std::string name = isRoot ? std::string() : attribute(element, "name");
    if (!isRoot && !name.empty()) {
        logger = repository_->getLogger(name.c_str());
        logger->setAdditivity(!sameWord(attribute(element, "additivity"), "false"));
    } else {
        logger = repository_->getRootLogger();
    }

    if (const xml::DOMElement* level = firstChild(element, "level")) {
        bool present = false;
        const std::string value = attribute(level, "value", &present);
        logger->setLevel(getLevel(value, present, "level.value"));
    }

    for (const xml::DOMElement* r = firstChild(element, "appender-ref"); r; r = nextSibling(r, "appender-ref")) {
        const std::string ref = attribute(r, "name");
        Appender* appender = ref.empty() ? nullptr : appenderNamed(ref);
        if (appender)
            logger->addAppender(*appender);
        else
            raise(1526, kLoadLogger, __LINE__, {ref, logger->getName()});
    }
    return true;
}

void Loader::loadConfiguration(const xml::DOMDocument* document) {
    const xml::DOMElement* root = document ? document->getDocumentElement() : nullptr;
    if (!root) {
        raise(1535, kLoadConfiguration, __LINE__);
        return;
    }
    if (isTrue(attribute(root, "reset"))) repository_->resetConfiguration();

    if (const xml::DOMElement* level = firstChild(root, "level")) {
        bool present = false;
        const std::string value = attribute(level, "value", &present);
        repository_->setThreshold(getLevel(value, present, "level.value"));
        repository_->updateEffectiveLevels();
    }
    for (const xml::DOMElement* a = firstChild(root, "appender"); a; a = nextSibling(a, "appender"))
        if (!loadAppender(a)) return;
    for (const xml::DOMElement* l = firstChild(root, "logger"); l; l = nextSibling(l, "logger"))
        if (!loadLogger(l, false)) return;
    if (const xml::DOMElement* r = firstChild(root, "root")) loadLogger(r, true);
}

bool isReadable(const std::string& path) {
    if (::access(path.c_str(), R_OK) != 0) return false;
    struct stat st;
    // A directory is readable too, but is no configuration.
    return ::stat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

bool isAbsolute(const std::string& name) {
    if (name.empty()) return false;
    if (name[0] == '/' || name[0] == '\\') return true;
    return name.size() >= 3 && std::isalpha(static_cast<unsigned char>(name[0])) && name[1] == ':' &&
           (name[2] == '/' || name[2] == '\\');
}

void setErrorFileName(const std::string& name) {
    CErrorContext::GetContext().SetItem(ErrXMLFileName, CDataItem(CDataItem::SafeStrdup(name.c_str()), true));
}

// Parses and loads one file; false when the document could not be parsed.
bool loadFile(const std::string& file) {
    setErrorFileName(file);
    ParseFailure failure;
    bool parsed = false;
    try {
        xml::XercesDOMParser parser;
        EmptyEntityResolver resolver;
        FatalErrorHandler errors;
        xml::SecurityManager security;
        security.setEntityExpansionLimit(kEntityExpansionLimit);
        parser.setValidationScheme(xml::XercesDOMParser::Val_Never);
        parser.setDoNamespaces(false);
        parser.setDoSchema(false);
        parser.setLoadSchema(false);
        parser.setLoadExternalDTD(false);
        parser.setSkipDTDValidation(true);
        parser.setCreateEntityReferenceNodes(false);
        parser.setDisableDefaultEntityResolution(true);
        parser.setEntityResolver(&resolver);
        parser.setErrorHandler(&errors);
        parser.setSecurityManager(&security);
        parser.setCreateCommentNodes(false);

        xml::TranscodeFromStr path(reinterpret_cast<const XMLByte*>(file.data()), file.size(), "UTF-8");
        xml::LocalFileInputSource source(path.str());
        parser.parse(source);
        parsed = true;
        Loader loader(Logger::getRepository());
        {
            ConfigurationLock lock;
            loader.loadConfiguration(parser.getDocument());
        }
    } catch (const xml::SAXParseException& e) {
        failure.line = static_cast<unsigned int>(e.getLineNumber());
        failure.text = narrow(e.getMessage());
    } catch (const xml::XMLException& e) {
        failure.line = static_cast<unsigned int>(e.getSrcLine());
        failure.text = narrow(e.getMessage());
    } catch (const xml::DOMException& e) {
        failure.text = narrow(e.getMessage());
    } catch (const xml::OutOfMemoryException&) {
        failure.text = "out of memory";
    } catch (const std::exception& e) {
        failure.text = e.what();
    } catch (...) {
        failure.text = "unknown error";
    }
    if (parsed) return true;
    raise(1534, kConfigure, __LINE__, {failure.line, failure.text});
    return false;
}

}  // namespace

// ---- ConfigurationLock -------------------------------------------------

struct ConfigurationLock::State {
    detail::DeferredRaiseScope deferred;
    MutexLock configuration{configurationMutex()};
    std::vector<Mutex*> taken;
    std::unique_ptr<Logger::LoggingRecursionCheck> quiet;
};

ConfigurationLock::ConfigurationLock() : state_(new State()) {
    beginReconfiguration();
    for (Logger* logger : Logger::getRepository()->getCurrentLoggers()) {
        Mutex& m = logger->mutex();
        if (m.heldByCurrentThread()) continue;
        m.lock();
        state_->taken.push_back(&m);
    }
    state_->quiet = std::make_unique<Logger::LoggingRecursionCheck>();
}

ConfigurationLock::~ConfigurationLock() {
    state_->quiet.reset();
    for (Mutex* m : state_->taken) m->unlock();
    state_->taken.clear();
    endReconfiguration();
    delete state_;  // the configuration lock, then the deferred raises
}

// ---- DOMConfiguratorImpl -----------------------------------------------

DOMConfiguratorImpl::DOMConfiguratorImpl() { initializeOnce(); }

DOMConfiguratorImpl::~DOMConfiguratorImpl() { stopWatch(); }

std::string DOMConfiguratorImpl::findFile(const std::string& name) {
    if (name.empty()) return std::string();
    if (isReadable(name)) return name;
    if (isAbsolute(name)) return std::string();
    const ProcessDirectories& d = processDirectories();
    for (const std::string* dir : {&d.executableDir, &d.workingDir}) {
        if (dir->empty()) continue;
        std::string path = *dir + "/" + name;
        if (isReadable(path)) return path;
    }
    return std::string();
}

bool DOMConfiguratorImpl::configure(const std::vector<std::string>& candidates) {
    try {
        for (const std::string& candidate : candidates) {
            const std::string file = findFile(candidate);
            if (file.empty()) continue;
            fileName_ = file;
            return loadFile(file);
        }
    } catch (...) {
    }
    return false;
}

void DOMConfiguratorImpl::configureAndWatch(const std::vector<std::string>& candidates, unsigned int intervalMs) {
    if (intervalMs == 0) {
        raise(1522, kConfigureAndWatch, __LINE__);
        fflush(stdout);
        if (ExitFunction exitFunction = zvs::zvlib::zvGetExitFunction()) exitFunction(12);
        exit(12);
    }
    stopWatch();
    interval_ = intervalMs;
    watchList_ = candidates;
    haveStamp_ = false;
    startEvent_ = new Event(Event::ManualReset, false);
    stopEvent_ = new Event(Event::ManualReset, false);
    watchThread_ = new Thread(&DOMConfiguratorImpl::watchThread, "ConfigWatchThread");
    watchThread_->Start(this);
    // The thread may still be inside set() when this returns: the event goes
    // with the thread, in stopWatch.
    startEvent_->wait();
}

void DOMConfiguratorImpl::stopWatch() {
    if (!watchThread_) return;
    stopEvent_->set();
    watchThread_->WaitForExit();
    delete watchThread_;
    watchThread_ = nullptr;
    delete stopEvent_;
    stopEvent_ = nullptr;
    delete startEvent_;
    startEvent_ = nullptr;
}

void DOMConfiguratorImpl::watchCycle(bool& configured) {
    const bool resetSeen = Logger::getRepository()->testAndClearConfigurationSignal();
    std::string file;
    for (const std::string& candidate : watchList_) {
        file = findFile(candidate);
        if (!file.empty()) break;
    }
    if (file.empty()) {
        if (configured || resetSeen) {
            BasicConfigurator::resetConfiguration();
            configured = false;
            haveStamp_ = false;
        }
        return;
    }
    struct stat st;
    if (::stat(file.c_str(), &st) != 0) {
        setErrorFileName(file);
        raise(1528, kWatchThread, __LINE__, {file});
        return;
    }
    const bool changed = !haveStamp_ || st.st_mtim.tv_sec != modified_.tv_sec ||
                         st.st_mtim.tv_nsec != modified_.tv_nsec || st.st_size != size_ || file != loadedName_ ||
                         st.st_ino != inode_ || st.st_dev != device_;
    if (!changed && !resetSeen) return;
    if (CMessageFactory* factory = CMessageFactory::GetDefaultFactory()) {
        CMessageFactory::Impl& impl = *factory->impl();
        MutexLock lock(impl.limitLock);
        impl.issueLimits.emplace(1528, 1);  // an existing entry stays as it is
    }
    loadFile(file);
    modified_ = st.st_mtim;
    size_ = st.st_size;
    loadedName_ = file;
    inode_ = st.st_ino;
    device_ = st.st_dev;
    haveStamp_ = true;
    configured = true;
}

unsigned int DOMConfiguratorImpl::watchThread(void* argument) {
    auto* self = static_cast<DOMConfiguratorImpl*>(argument);
    bool configured = false;
    bool started = false;
    for (;;) {
        try {
            self->watchCycle(configured);
        } catch (...) {
            // The next cycle tries again.
        }
        if (!started) {
            started = true;
            self->startEvent_->set();
        }
        if (self->stopEvent_->wait(self->interval_)) return 0;
    }
}

// ---- Facades -----------------------------------------------------------

DOMConfigurator::DOMConfigurator() : impl_(new DOMConfiguratorImpl()) {}

DOMConfigurator::~DOMConfigurator() { delete impl_; }

bool DOMConfigurator::configure(const char* fileName) {
    if (!fileName) return false;
    return impl_->configure(std::vector<std::string>{fileName});
}

bool DOMConfigurator::configure(const std::vector<std::string>& candidates) { return impl_->configure(candidates); }

void DOMConfigurator::configureAndWatch(const std::vector<std::string>& candidates, unsigned int intervalMs) {
    try {
        impl_->configureAndWatch(candidates, intervalMs);
    } catch (...) {
    }
}

void DOMConfigurator::stopWatch() { impl_->stopWatch(); }

void BasicConfigurator::resetConfiguration() {
    try {
        ConfigurationLock lock;
        Logger::getRepository()->resetConfiguration();
    } catch (...) {
    }
}

}  // namespace zvs::zvlib::zvlog
