// Built by hand with pkg-config: logs, formats a message of the catalog
// installed with the library, and opens the converters installed with it.
#include <cstdio>

#include "zvlog/CSConverter.h"
#include "zvlog/WriterAppender.h"
#include "zvlog/Layout.h"
#include "zvlog/Log.h"
#include "zvlog/Logger.h"
#include "zvlog/zvMessage.h"

using namespace zvs::zvlib::zvlog;

int main() {
    Logger* logger = Logger::getRepository()->getLogger("handmade");
    ConsoleAppender console;
    console.setLayout(new PatternLayout("%p %c - %m\n"));
    logger->addAppender(console);
    logger->setLevel(LEVEL_INFO);
    ZVLOG_WARN(logger, "linked with %s", "pkg-config");
    CMessage* m = CMessageFactory::GetDefaultFactory()->CreateMessage(
        new CSourceContext("handmade", "main", "main", 1), 1093u, "b.log", "busy");
    if (!m) return 1;
    printf("%s\n", m->Format());
    delete m;
    for (ULibCharSet set : {ULIB_CS_UTF_EBCDIC, ULIB_CS_IBM5233})
        printf("converter %u: %s\n", static_cast<unsigned>(set),
               CSConverter(set, ULIB_CNV_STOP, false).isValid() ? "opened" : "missing");
    logger->removeAllAppenders();
    return 0;
}
