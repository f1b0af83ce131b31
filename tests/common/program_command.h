#pragma once
// Starts the programs the build made. A cross build runs its tests under an emulator (ZELT_TEST_EMULATOR: the
// emulator and its options, separated by '|'); the programs the tests start are built for the same machine
// and need it too, as the kernel cannot run them. Programs of the build machine (cmake, ip, mbpoll) start as
// they are.

#include <QByteArray>
#include <QFile>
#include <QProcess>
#include <QString>
#include <QStringList>

namespace zelt_test {

// e_machine sits at the same offset in 32- and 64-bit ELF headers.
constexpr int kElfMachineOffset = 18;
constexpr int kElfMachineSize = 2;

// The machine field of an ELF file's header; empty when `path` is no readable ELF file.
inline QByteArray elfMachineOf(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return {};
    const QByteArray header = file.read(kElfMachineOffset + kElfMachineSize);
    if (header.size() != kElfMachineOffset + kElfMachineSize || !header.startsWith("\x7f"
                                                                                   "ELF"))
        return {};
    return header.mid(kElfMachineOffset, kElfMachineSize);
}

// What runs `program`: the program itself, or the emulator followed by the program.
inline QStringList commandFor(const QString& program) {
#ifdef ZELT_TEST_EMULATOR
    const QByteArray machine = elfMachineOf(program);
    // Under the emulator, /proc/self/exe is the test program itself.
    if (!machine.isEmpty() && machine == elfMachineOf(QStringLiteral("/proc/self/exe")))
        return QString::fromUtf8(ZELT_TEST_EMULATOR).split(QLatin1Char('|')) + QStringList{program};
#endif
    return {program};
}

inline void startProgram(QProcess& process, const QString& program, const QStringList& arguments) {
    QStringList command = commandFor(program);
    const QString first = command.takeFirst();
    process.start(first, command + arguments);
}

}  // namespace zelt_test
