#pragma once

// Sets up the process's gettext domain, whose catalogues lie below /opt/orvel/share/locale.
class Translations {
public:
    // Binds the domain `name`, in UTF-8, and makes it the current one, so that plain gettext
    // calls use it. A null or empty name is a programming error and fails an assertion; a
    // missing catalogue is none. Catalogues take effect only where a locale is selected.
    static void setTranslationName(const char* name);
};
