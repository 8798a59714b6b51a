#ifndef VINDAL_UTF8LOCALE_P_H
#define VINDAL_UTF8LOCALE_P_H

#include <QtCore/qglobal.h>

#include <memory>

namespace Vindal {

// libarchive converts entry names through the calling thread's locale, and
// under a "C" locale a name beyond ASCII cannot be converted: the tar writer
// then fails (and libarchive 3.6 crashes formatting its own message). Names
// are always handed over in UTF-8, so while packing or unpacking the thread
// uses a UTF-8 character set; the process's locale is left alone.
class Utf8Locale
{
    Q_DISABLE_COPY(Utf8Locale)
public:
    Utf8Locale();
    ~Utf8Locale();

private:
    struct State;
    std::unique_ptr<State> m_state; // null when nothing was changed
};

} // namespace Vindal

#endif // VINDAL_UTF8LOCALE_P_H
