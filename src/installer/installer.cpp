// Placeholder slots until the installation flows land.
#include "installer/installer.h"

namespace Corbeth {

bool Installer::installPackage() { return false; }
bool Installer::uninstallPackage(QString) { return false; }
bool Installer::update() { return false; }
bool Installer::updatePatch() { return false; }

} // namespace Corbeth
