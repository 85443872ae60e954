// Text from a tree or a capture on its way to a terminal: a control character in it could move the
// cursor, erase lines or retitle the window, and so rewrite what the engineer sees above it.
#ifndef RFSYSINFO_TERMINALTEXT_H
#define RFSYSINFO_TERMINALTEXT_H

#include <QString>

// `text` with every control character but tab (and line feed, where `keepLineFeeds`) written out:
// C0 and DEL as \xHH, C1 as \uHHHH. A byte that was no UTF-8 already reads as U+FFFD.
QString terminalText(const QString &text, bool keepLineFeeds = false);

#endif // RFSYSINFO_TERMINALTEXT_H
