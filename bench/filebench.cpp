// Times the installer's file operations on a real tree, for bench/files.sh.
//
//   corbeth-bench-files copy SRC DEST    cutFiles of the folder SRC into DEST
//   corbeth-bench-files remove DIR       removeFiles of DIR
//
// Prints "<seconds> <peak resident KiB>" on standard output.
#include "installer/installer.h"
#include "peakmemory.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QLoggingCategory>

#include <cstdio>

using namespace Corbeth;

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    // The engine logs every file at debug level; that is not what is measured.
    QLoggingCategory::setFilterRules(QStringLiteral("corbeth.lib.debug=false\ncorbeth.lib.info=false"));
    const QStringList args = app.arguments();
    if (args.size() < 3) {
        std::fprintf(stderr, "usage: corbeth-bench-files copy SRC DEST | remove DIR\n");
        return 2;
    }
    Installer installer;
    QElapsedTimer timer;
    timer.start();
    if (args.at(1) == QLatin1String("copy") && args.size() == 4) {
        CoverFileInfo item;
        item.pair = {args.at(2), args.at(3)};
        if (!installer.cutFiles({item}))
            return 1;
    } else if (args.at(1) == QLatin1String("remove")) {
        installer.removeFiles({args.at(2)}, {});
    } else {
        return 2;
    }
    const double seconds = timer.nsecsElapsed() / 1e9;
    std::printf("%.3f %lld\n", seconds, peakMemoryKiB());
    return 0;
}
