#include "../utf8locale_p.h"

#include <clocale>
#include <locale.h>
#include <string>

namespace Vindal {

struct Utf8Locale::State
{
    int threadMode;
    std::string ctype;
};

// Once the C runtime's locale follows the thread, its UTF-8 code page
// (".UTF-8") is what libarchive converts names with.
Utf8Locale::Utf8Locale()
{
    const int threadMode = _configthreadlocale(_ENABLE_PER_THREAD_LOCALE);
    const char *current = std::setlocale(LC_CTYPE, nullptr);
    std::unique_ptr<State> state(new State{threadMode, current ? current : "C"});
    if (std::setlocale(LC_CTYPE, ".UTF-8"))
        m_state = std::move(state);
    else
        _configthreadlocale(threadMode);
}

Utf8Locale::~Utf8Locale()
{
    if (!m_state)
        return;
    std::setlocale(LC_CTYPE, m_state->ctype.c_str());
    _configthreadlocale(m_state->threadMode);
}

} // namespace Vindal
