// One occurrence of a catalog message: its code, its text through the
// catalog's ICU pattern, the duplicate test and the running of its
// severity's actions.
#include <unicode/fieldpos.h>
#include <unicode/fmtable.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "zvlog/AppContext.h"
#include "zvlog/CSConverter.h"
#include "zvlog/ErrorContext.h"
#include "zvlog/msg/MessageInternals.h"
#include "zvlog/msg/MessageTesting.h"

namespace msg = zvs::zvlib::zvlog::msg;
using msg::Action;
using msg::IssueRecord;
using msg::MessageDetail;
using msg::Severity;
using zvs::zvlib::MultiThreading::MutexLock;

const char* const SeverityNames::ZVStore = "ZVStore";
const char* const SeverityNames::ZVException = "ZVException";
const char* const SeverityNames::ZVFatalMemoryError = "ZVFatalMemoryError";
const char* const SeverityNames::ZVFatal = "ZVFatal";
const char* const SeverityNames::ZVError = "ZVError";
const char* const SeverityNames::ZVWarnNoReport = "ZVWarnNoReport";
const char* const SeverityNames::ZVWarn = "ZVWarn";
const char* const SeverityNames::ZVInfoNoReport = "ZVInfoNoReport";
const char* const SeverityNames::ZVInfo = "ZVInfo";

namespace {

constexpr const char* kFormattingError = "Formatting error";
constexpr unsigned int kRecentTexts = 16;

// The texts ToString handed out on this thread; the 17th frees the oldest.
struct RecentTexts {
    char* texts[kRecentTexts] = {};
    unsigned int next = 0;

    ~RecentTexts() {
        for (char* text : texts) free(text);
    }

    const char* keep(char* text) {
        free(texts[next]);
        texts[next] = text;
        next = (next + 1) % kRecentTexts;
        return text;
    }
};

thread_local RecentTexts tRecentTexts;

icu::Formattable unknownArgument() { return icu::Formattable(icu::UnicodeString("<Unknown>", "")); }

// The value that the hexadecimal forms show; false for kinds without one.
bool integerValue(const CDataItem& item, uint64_t& value) {
    const CDataItem::Value& v = item.GetValue();
    switch (item.GetType()) {
    case CDataItem::TypeInt:
        value = v.i32 < 0 ? 0 : static_cast<uint64_t>(v.i32);
        return true;
    case CDataItem::TypeUInt:
        value = v.u32;
        return true;
    case CDataItem::TypeInt64:
    case CDataItem::TypeUInt64:
        value = v.u64;
        return true;
    case CDataItem::TypeBool:
        value = v.b ? 1 : 0;
        return true;
    case CDataItem::TypePointer:
        value = reinterpret_cast<uintptr_t>(v.ptr);
        return true;
    default:
        return false;
    }
}

icu::Formattable hexadecimal(uint64_t value, int digits) {
    if (digits < 16) value &= (uint64_t{1} << (4 * digits)) - 1;
    char text[20];
    snprintf(text, sizeof text, "%0*" PRIx64, digits, value);
    return icu::Formattable(icu::UnicodeString(text, ""));
}

// One argument as the pattern sees it, by the detail's display form.
icu::Formattable formattable(const CDataItem& item, int form) {
    const CDataItem::Value& v = item.GetValue();
    switch (form) {
    case 0:
        break;
    case 1:
    case 2:
    case 3:
    case 4: {
        uint64_t value = 0;
        if (!integerValue(item, value)) return unknownArgument();
        return hexadecimal(value, 1 << form);  // 2, 4, 8, 16 digits
    }
    case 5: {
        uint64_t payload = 0;
        memcpy(&payload, v.raw, sizeof payload);
        return hexadecimal(payload, 16);
    }
    default:
        return unknownArgument();
    }

    icu::Formattable result;
    switch (item.GetType()) {
    case CDataItem::TypeString:
        // A null codepage: the platform's default.
        result.setString(icu::UnicodeString(v.str ? v.str : "", static_cast<const char*>(nullptr)));
        break;
    case CDataItem::TypeInt:
        result.setLong(v.i32);
        break;
    case CDataItem::TypeUInt:
        result.setInt64(v.u32);
        break;
    case CDataItem::TypeInt64:
        result.setInt64(v.i64);
        break;
    case CDataItem::TypeUInt64:
        result.setInt64(static_cast<int64_t>(v.u64));
        break;
    case CDataItem::TypeBool:
        result.setLong(v.b ? 1 : 0);
        break;
    case CDataItem::TypeTimespec: {
        // Microseconds / 1000000, not / 1000: sub-second parts add less than a
        // millisecond. Kept so; texts and stored reports depend on it.
        // The milliseconds are counted in floating point, as UDate is: seconds
        // beyond +-9.2e15 would overflow them in 64 bits.
        const long long microseconds = v.ts.tv_nsec / 1000;
        result.setDate(static_cast<UDate>(v.ts.tv_sec) * 1000.0 + static_cast<UDate>(microseconds / 1000000));
        break;
    }
    case CDataItem::TypePointer:
        result.setInt64(static_cast<int64_t>(reinterpret_cast<intptr_t>(v.ptr)));
        break;
    default:
        return unknownArgument();
    }
    return result;
}

// Strings byte by byte, arrays element by element, the rest by payload.
bool sameArgument(const CDataItem& a, const CDataItem& b) {
    if (a.GetType() != b.GetType()) return false;
    const CDataItem::Value& x = a.GetValue();
    const CDataItem::Value& y = b.GetValue();
    switch (a.GetType()) {
    case CDataItem::TypeString:
        if (!x.str || !y.str) return x.str == y.str;
        return strcmp(x.str, y.str) == 0;
    case CDataItem::TypeVector: {
        if (!x.vec || !y.vec) return x.vec == y.vec;
        if (x.vec->size() != y.vec->size()) return false;
        for (size_t i = 0; i < x.vec->size(); ++i)
            if (!((*x.vec)[i] == (*y.vec)[i])) return false;
        return true;
    }
    default:
        return x.u64 == y.u64;
    }
}

// What every plain-function action of one Issue call is told; each call gets
// a record of its own, built from these.
struct IssueFacts {
    std::string text;
    std::string appInstance;
    std::string appInstanceDescription;
    timespec time{};
};

struct RecordDeleter {
    void operator()(IssueRecord* record) const { free(record); }
};

// One block: the record, then its texts.
std::unique_ptr<IssueRecord, RecordDeleter> makeRecord(const CMessageDefinition& definition, const IssueFacts& facts) {
    const char* severityName = definition.severity ? definition.severity->name.c_str() : "";
    const char* texts[4] = {severityName, facts.text.c_str(), facts.appInstance.c_str(),
                            facts.appInstanceDescription.c_str()};
    size_t size = sizeof(IssueRecord);
    for (const char* text : texts) size += strlen(text) + 1;
    auto* record = static_cast<IssueRecord*>(malloc(size));
    if (!record) return nullptr;
    memcpy(record->messageClass, definition.messageClass, sizeof record->messageClass);
    memcpy(record->code, definition.code, sizeof record->code);
    record->time = facts.time;
    char* place = reinterpret_cast<char*>(record + 1);
    const char** fields[4] = {&record->severityName, &record->text, &record->appInstance,
                              &record->appInstanceDescription};
    for (int i = 0; i < 4; ++i) {
        const size_t length = strlen(texts[i]) + 1;
        memcpy(place, texts[i], length);
        *fields[i] = place;
        place += length;
    }
    return std::unique_ptr<IssueRecord, RecordDeleter>(record);
}

}  // namespace

namespace zvs::zvlib::zvlog::msg::testing {

bool recentTextHeld(const char* text) {
    for (const char* kept : tRecentTexts.texts)
        if (kept && kept == text) return true;
    return false;
}

}  // namespace zvs::zvlib::zvlog::msg::testing

CMessage::CMessage(CMessageFactory* factory, const CMessageDefinition* definition, CMessageContext* context)
    : factory_(factory),
      definition_(definition),
      context_(context),
      locale_(new icu::Locale(factory->impl()->locale)) {}

CMessage::~CMessage() {
    delete context_;
    delete static_cast<icu::Locale*>(locale_);
    free(formatted_);
}

unsigned int CMessage::GetMessageID() const { return definition_->number; }

const char* CMessage::GetSeverityName() const {
    return definition_->severity ? definition_->severity->name.c_str() : "";
}

void CMessage::GetMessageCode(char* out) const { GetMessageCode(definition_->number, out); }

void CMessage::GetMessageCode(unsigned int number, char* out) {
    // The last five digits, so that every code has the same width.
    snprintf(out, 10, "QMR-%05u", number % 100000);
}

uint32_t CMessage::GetReportMask() const { return definition_->reportMask; }

const char* CMessage::Format(ULibCharSetValue charset) const {
    CContextItem* item = context_ ? context_->GetItem(MessageDetails) : nullptr;
    if (!item) return nullptr;
    std::vector<icu::Formattable> arguments;
    {
        MutexLock lock(item->GetLock());
        if (item->GetType() != CDataItem::TypeVector || !item->GetValue().vec) return nullptr;
        const std::vector<CDataItem>& values = *item->GetValue().vec;
        arguments.reserve(values.size());
        for (size_t i = 0; i < values.size(); ++i) {
            const int form = i < definition_->details.size() ? definition_->details[i].form : 0;
            arguments.push_back(formattable(values[i], form));
        }
    }

    UErrorCode status = U_ZERO_ERROR;
    icu::MessageFormat format(definition_->pattern, *static_cast<const icu::Locale*>(locale_), status);
    icu::UnicodeString text;
    icu::FieldPosition position;
    icu::Formattable none;
    format.format(arguments.empty() ? &none : arguments.data(), static_cast<int32_t>(arguments.size()), text,
                  position, status);
    if (U_FAILURE(status)) return nullptr;

    CSConverter converter(static_cast<ULibCharSet>(charset));
    std::string bytes;
    if (!converter.isValid() || !converter.fromUnicode(text, bytes, &status)) return nullptr;
    const size_t room = std::max(static_cast<size_t>(converter.maxCharSize()) * static_cast<size_t>(text.length()) + 1,
                                 bytes.size() + 1);
    char* result = static_cast<char*>(malloc(room));
    if (!result) return nullptr;
    memcpy(result, bytes.data(), bytes.size());
    result[bytes.size()] = '\0';
    free(formatted_);
    formatted_ = result;
    return result;
}

const char* CMessage::ToString(ULibCharSetValue charset) {
    const char* text = Format(charset);
    char* copy = text ? strdup(text) : nullptr;
    delete this;
    return copy ? tRecentTexts.keep(copy) : nullptr;
}

bool CMessage::operator==(const CMessage& other) const {
    if (definition_ != other.definition_) return false;
    const size_t compared = definition_->details.size();
    if (compared == 0) return true;
    if (this == &other) return true;
    CContextItem* mine = context_->GetItem(MessageDetails);
    CContextItem* theirs = other.context_->GetItem(MessageDetails);
    if (!mine || !theirs) return mine == theirs;
    // Both locks, always in the same order.
    CContextItem* first = mine < theirs ? mine : theirs;
    CContextItem* second = mine < theirs ? theirs : mine;
    MutexLock firstLock(first->GetLock());
    MutexLock secondLock(second->GetLock());
    if (mine->GetType() != CDataItem::TypeVector || theirs->GetType() != CDataItem::TypeVector) return false;
    const std::vector<CDataItem>* a = mine->GetValue().vec;
    const std::vector<CDataItem>* b = theirs->GetValue().vec;
    if (!a || !b) return a == b;
    for (size_t i = 0; i < compared; ++i) {
        const bool inA = i < a->size();
        const bool inB = i < b->size();
        if (inA != inB) return false;
        if (!inA) break;
        if (!sameArgument((*a)[i], (*b)[i])) return false;
    }
    return true;
}

bool CMessage::Issue(CActionAttribute mask) const {
    CMessageFactory::Impl& factory = *factory_->impl();
    {
        MutexLock lock(factory.limitLock);
        const auto limit = factory.issueLimits.find(definition_->number);
        if (limit != factory.issueLimits.end()) {
            if (limit->second == 0) return true;
            --limit->second;
        }
    }
    return IssueActions(mask);
}

bool CMessage::IssueActions(CActionAttribute mask) const {
    CMessageFactory::Impl& factory = *factory_->impl();

    // Gathered on the first plain-function action: the text is copied, since
    // a later action may format the message again.
    std::unique_ptr<IssueFacts> facts;
    auto run = [&](const Action& action) -> bool {
        if (action.member) return action.member(action, *this);
        if (!action.plain) return true;
        if (!facts) {
            facts = std::make_unique<IssueFacts>();
            const char* text = Format(kDefaultCharSet);
            facts->text = text ? text : kFormattingError;
            facts->appInstance = getAppContextText(AppInstance);
            facts->appInstanceDescription = getAppContextText(AppInstanceDescription);
            if (CContextItem* time = context_->GetItem(MessageTime)) {
                MutexLock lock(time->GetLock());
                facts->time = static_cast<timespec>(*time);
            }
        }
        auto record = makeRecord(*definition_, *facts);
        return record && action.plain(*record);
    };

    bool succeeded = true;
    for (const Action& action : factory.processActions)
        if (action.attributes & mask) succeeded = run(action) && succeeded;
    if (!succeeded) return false;

    Severity* severity = definition_->severity;
    if (!severity) return true;
    if (Severity* redirect = severity->redirect.load()) severity = redirect;
    for (const Action& action : severity->actions)
        if (action.attributes & mask) succeeded = run(action) && succeeded;
    return succeeded;
}
