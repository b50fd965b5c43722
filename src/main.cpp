#include <libgen.h>
#include <syslog.h>

#include "alarmdaemon.h"
#include "logger.h"
#include "translations_stl.h"

int main(int, char* argv[]) {
    const char* name = basename(argv[0]);
    Translations::setTranslationName(name);
    SysLog::instance()->setIdent(name);
    SysLog::instance()->configure(LOG_CONS | LOG_ODELAY, LOG_DAEMON, true);

    AlarmDaemon daemon;
    return daemon.run();
}
