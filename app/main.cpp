// SPDX-License-Identifier: GPL-3.0-or-later
// tessel [FILE]...: the desktop editor. Opens the files given on the command line, each as a
// document of its own.

#include "platform/qt/mainwindow.h"

#include <QApplication>
#include <QIcon>

#include <string>
#include <vector>

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Tessel"));
    QApplication::setApplicationVersion(QStringLiteral(TESSEL_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("tessel"));
    QApplication::setWindowIcon(QIcon(QStringLiteral(":/tessel.svg")));

    SEMainWindow window;
    window.show();
    std::vector<std::string> paths;
    QStringList const args = QApplication::arguments();
    for (qsizetype i = 1; i < args.size(); ++i) {
        paths.push_back(args[i].toStdString());
    }
    if (!paths.empty()) {
        (void)window.OpenFiles(paths);
    }
    return QApplication::exec();
}
