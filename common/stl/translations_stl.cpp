#include "translations_stl.h"

#include <libintl.h>

#include <cassert>

namespace {

constexpr const char* localeDirectory = "/opt/orvel/share/locale";
constexpr const char* codeset = "UTF-8";

}  // namespace

void Translations::setTranslationName(const char* name) {
    assert(name && *name && "Translations domain is not defined!!!");
    bindtextdomain(name, localeDirectory);
    bind_textdomain_codeset(name, codeset);
    textdomain(name);
}
