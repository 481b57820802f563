// Logs through a logger of its own and formats a message of the library's
// catalog and one of its own.
#include <cstdio>

#include "zvlog/BuildContext.h"
#include "zvlog/WriterAppender.h"
#include "zvlog/Layout.h"
#include "zvlog/Log.h"
#include "zvlog/Logger.h"
#include "zvlog/zvMessage.h"

ZVLOG_DEFINE_BUILD_CONTEXT("consumer", "1.0", "Release", "none", "none");

using namespace zvs::zvlib::zvlog;

int main() {
    Logger* logger = Logger::getRepository()->getLogger("consumer");
    ConsoleAppender console;
    console.setLayout(new PatternLayout("%p %c - %m\n"));
    logger->addAppender(console);
    logger->setLevel(LEVEL_INFO);
    ZVLOG_INFO(logger, "started with %d argument(s)", 0);

    CMessageFactory* factory = CMessageFactory::GetDefaultFactory();
    for (CMessage* m : {factory->CreateMessage(new CSourceContext("consumer", "main", "main", 1), 1093u,
                                               "a.log", "denied"),
                        factory->CreateMessage(new CSourceContext("consumer", "main", "main", 2), 9100001u, 12u,
                                               "ORDERS")}) {
        if (!m) return 1;
        printf("%s\n", m->Format());
        delete m;
    }
    logger->removeAllAppenders();
    return 0;
}
