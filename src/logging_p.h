#ifndef CORBETH_LOGGING_P_H
#define CORBETH_LOGGING_P_H

#include <QtCore/QLoggingCategory>

// Every line the engine writes goes to the one category "corbeth.lib", so a
// product can switch the engine's log on or off with a single rule.
Q_DECLARE_LOGGING_CATEGORY(lcCorbeth)

#endif // CORBETH_LOGGING_P_H
