// For tst_skglobal, the settings store seen from a process of its own:
//   corbeth-settingsreader PATH KEY MILLISECONDS
//     Reads the value (a filler and k0..k199, all holding one generation
//     number) over and over. Prints "reads <n> generations <m>" and exits 0,
//     or prints the torn read it saw and exits 1.
//   corbeth-settingsreader --get PATH KEY       prints the value as text
//   corbeth-settingsreader --write PATH PREFIX N  writes PREFIX0..PREFIX<N-1>
#include "platform/skglobal.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QSet>

#include <cstdio>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    Corbeth::SKGlobal *settings = Corbeth::SKGlobal::instance();
    if (args.size() == 4 && args.at(1) == QLatin1String("--get")) {
        std::printf("%s\n", qPrintable(settings->settingValue(args.at(2), args.at(3)).toString()));
        return 0;
    }
    if (args.size() == 5 && args.at(1) == QLatin1String("--write")) {
        for (int i = 0; i < args.at(4).toInt(); ++i)
            settings->setSettingValue(args.at(2), args.at(3) + QString::number(i), i);
        return 0;
    }
    if (args.size() != 4)
        return 2;
    QSet<int> generations;
    int reads = 0;
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < args.at(3).toInt()) {
        const QVariantMap map = settings->settingValue(args.at(1), args.at(2)).toMap();
        ++reads;
        const int generation = map.value(QStringLiteral("k0")).toInt();
        int same = 0;
        for (const QVariant &value : map)
            same += value.toInt() == generation ? 1 : 0;
        if (map.size() != 201 || same != 200) {
            std::printf("torn read %d: %d entries, %d of generation %d\n", reads, int(map.size()), same, generation);
            return 1;
        }
        generations.insert(generation);
    }
    std::printf("reads %d generations %d\n", reads, int(generations.size()));
    return 0;
}
