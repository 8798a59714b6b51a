#ifndef CORBETH_PACK_TERMINAL_H
#define CORBETH_PACK_TERMINAL_H

#include <cstdio>

// Whether the stream is an interactive terminal, where progress is drawn in
// place; redirected output stays free of control characters.
bool isTerminal(std::FILE *stream);

#endif // CORBETH_PACK_TERMINAL_H
