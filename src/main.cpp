#include <libgen.h>
#include <syslog.h>

#include <cstdlib>

#include "alarmdaemon.h"
#include "logger.h"
#include "translations_stl.h"

// In place of libstdc++'s own, which names the exception on stderr and for that brings along a
// demangler as large as the rest of the daemon.
namespace __gnu_cxx {
void __verbose_terminate_handler() { std::abort(); }
}  // namespace __gnu_cxx

int main(int, char* argv[]) {
    const char* name = basename(argv[0]);
    Translations::setTranslationName(name);
    SysLog::instance()->setIdent(name);
    SysLog::instance()->configure(LOG_CONS | LOG_ODELAY, LOG_DAEMON, true);

    AlarmDaemon daemon;
    return daemon.run();
}
