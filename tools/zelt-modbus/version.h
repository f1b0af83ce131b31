#pragma once
// The versions zelt-modbus reports for --version: its own, the plugin's, the host contract's and libmodbus's.

#include <QString>

namespace zelt_cli {

// One fact per line, each line "NAME VERSION", ending in a newline.
QString versionText();

}  // namespace zelt_cli
