#include "terminal.h"

#include <io.h>

bool isTerminal(std::FILE *stream)
{
    return ::_isatty(::_fileno(stream)) != 0;
}
