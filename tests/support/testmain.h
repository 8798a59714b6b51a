#ifndef CORBETH_TEST_TESTMAIN_H
#define CORBETH_TEST_TESTMAIN_H

#include "sandbox.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>
#include <QtTest/QTest>

// Like QTEST_GUILESS_MAIN, but the sandbox is in place before the application
// object reads any environment, and the engine's debug lines are enabled so
// tests can assert them.
#define CORBETH_TEST_MAIN(TestObject)                                             \
    int main(int argc, char *argv[])                                              \
    {                                                                             \
        TestSandbox sandbox;                                                      \
        QCoreApplication app(argc, argv);                                         \
        QLoggingCategory::setFilterRules(QStringLiteral("corbeth.lib.debug=true")); \
        TestObject tc;                                                            \
        QTEST_SET_MAIN_SOURCE_PATH                                                \
        return QTest::qExec(&tc, argc, argv);                                     \
    }

#endif // CORBETH_TEST_TESTMAIN_H
