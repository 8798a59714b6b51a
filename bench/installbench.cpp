// A client of the public facade that runs one install and prints how long
// each stage took, for bench/install.sh.
//   corbeth-bench-install online <config.json> <install path>
//   corbeth-bench-install offline <config.json> <package> <install path>
#include <corbeth/manager.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QLoggingCategory>
#include <QtCore/QMetaEnum>

#include <cstdio>

using Corbeth::CBEnum;

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("corbeth.lib=false"));
    const QStringList args = app.arguments();
    const bool online = args.value(1) == QLatin1String("online");
    if (args.size() != (online ? 4 : 5)) {
        std::fprintf(stderr, "usage: %s online <config> <path> | offline <config> <package> <path>\n", argv[0]);
        return 2;
    }
    Corbeth::Manager manager;
    if (manager.setConfigPath(args.at(2)) != CBEnum::EC_NoError || (online && manager.initRemote() != CBEnum::EC_NoError)) {
        std::fprintf(stderr, "the configuration %s cannot be used\n", qPrintable(args.at(2)));
        return 1;
    }
    QElapsedTimer clock;
    double mark = 0;
    // One line per stage: the stage that just ended and its seconds.
    const auto stage = [&](const char *name) {
        const double now = clock.nsecsElapsed() / 1e9;
        std::printf("%-10s %6.2f s\n", name, now - mark);
        mark = now;
    };
    bool downloaded = false;
    QObject::connect(&manager, &Corbeth::Manager::progress, [&](double p) {
        // The download owns the first half of an online install's bar.
        if (online && !downloaded && p >= 50.0) {
            downloaded = true;
            stage("download");
        }
    });
    QObject::connect(&manager, &Corbeth::Manager::taskStatusChanged, [&](uint status) {
        if (status == CBEnum::TS_Uncompressing)
            stage("md5");
        else if (status == CBEnum::TS_Installing)
            stage("unpack");
        else if (status == CBEnum::TS_Finished)
            stage("install");
    });
    int result = 0;
    QObject::connect(&manager, &Corbeth::Manager::errorOccurred, [&](CBEnum::ErrorCode code) {
        std::fprintf(stderr, "failed: %s\n", QMetaEnum::fromType<CBEnum::ErrorCode>().valueToKey(code));
        result = 1;
        app.quit();
    });
    QObject::connect(&manager, &Corbeth::Manager::finished, &app, &QCoreApplication::quit);
    clock.start();
    if (online) {
        manager.onlineInstall(args.at(3));
    } else {
        manager.setInstallPath(args.at(4));
        manager.offlineInstall(args.at(3));
    }
    app.exec();
    std::printf("%-10s %6.2f s\n", "total", clock.nsecsElapsed() / 1e9);
    return result;
}
