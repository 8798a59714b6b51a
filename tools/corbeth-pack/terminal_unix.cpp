#include "terminal.h"

#include <unistd.h>

bool isTerminal(std::FILE *stream)
{
    return ::isatty(::fileno(stream)) == 1;
}
