#include "fuzzsupport.h"

#include <sandbox.h>

#include <QtCore/QCoreApplication>

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static TestSandbox sandbox;
    static QCoreApplication app(*argc, *argv);
    // qFatal still aborts after the handler, so fatal messages stay crashes.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    return 0;
}

void fuzzFailure(const char *what)
{
    std::fprintf(stderr, "fuzz property broken: %s\n", what);
    std::abort();
}
