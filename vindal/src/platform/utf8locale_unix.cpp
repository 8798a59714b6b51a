#include "../utf8locale_p.h"

#include <cstring>
#include <langinfo.h>
#include <locale.h>

namespace Vindal {

struct Utf8Locale::State
{
    locale_t own;
    locale_t previous;
};

Utf8Locale::Utf8Locale()
{
    if (std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0)
        return;
    const locale_t own = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t(0));
    if (own != locale_t(0))
        m_state.reset(new State{own, uselocale(own)});
}

Utf8Locale::~Utf8Locale()
{
    if (!m_state)
        return;
    uselocale(m_state->previous);
    freelocale(m_state->own);
}

} // namespace Vindal
