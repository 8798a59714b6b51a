#include "terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

bool isTerminal(std::FILE *stream)
{
    return ::isatty(::fileno(stream)) == 1;
}

int terminalWidth(std::FILE *stream)
{
    winsize size{};
    if (::ioctl(::fileno(stream), TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    return 80;
}
