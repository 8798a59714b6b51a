#ifndef CORBETH_TOOLS_TERMINAL_H
#define CORBETH_TOOLS_TERMINAL_H

#include <cstdio>

// Whether the stream is an interactive terminal, where progress is drawn in
// place; redirected output stays free of control characters.
bool isTerminal(std::FILE *stream);

// The terminal's width in columns, 80 when it cannot be told.
int terminalWidth(std::FILE *stream);

#endif // CORBETH_TOOLS_TERMINAL_H
