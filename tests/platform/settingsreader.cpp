// Test-only reader for tst_skglobal: reads one settings value for a while, in
// a process of its own, and checks every read sees a whole store.
//   corbeth-settingsreader PATH KEY MILLISECONDS
// The value must be a map whose entries all hold the same generation number.
// Prints "reads <n> generations <m>" and exits 0, or prints what it saw and
// exits 1.
#include "platform/skglobal.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QSet>

#include <cstdio>

using Corbeth::SKGlobal;

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() != 4)
        return 2;
    const int entries = 200;
    QSet<int> generations;
    int reads = 0;
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < args.at(3).toInt()) {
        const QVariantMap map = SKGlobal::instance()->settingValue(args.at(1), args.at(2)).toMap();
        ++reads;
        const int generation = map.value(QStringLiteral("k0")).toInt();
        int same = 0;
        for (const QVariant &value : map)
            same += value.toInt() == generation ? 1 : 0;
        if (map.size() != entries + 1 || same != entries) {
            std::printf("torn read %d: %d entries, %d of generation %d\n", reads, int(map.size()), same, generation);
            return 1;
        }
        generations.insert(generation);
    }
    std::printf("reads %d generations %d\n", reads, int(generations.size()));
    return 0;
}
