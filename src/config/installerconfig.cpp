// Placeholder until the configuration side of the engine lands.
#include "installer/installer.h"

namespace Corbeth {

Installer::Installer(QObject *parent)
    : QObject(parent)
{
}

Installer::~Installer() = default;

void Installer::onConfigDataChanged() {}

} // namespace Corbeth
