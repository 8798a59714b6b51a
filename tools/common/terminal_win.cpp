#include "terminal.h"

#include <io.h>
#include <windows.h>

bool isTerminal(std::FILE *stream)
{
    return ::_isatty(::_fileno(stream)) != 0;
}

int terminalWidth(std::FILE *stream)
{
    CONSOLE_SCREEN_BUFFER_INFO info;
    const HANDLE handle = reinterpret_cast<HANDLE>(::_get_osfhandle(::_fileno(stream)));
    if (::GetConsoleScreenBufferInfo(handle, &info))
        return info.srWindow.Right - info.srWindow.Left + 1;
    return 80;
}
