#include "write/TerminalText.h"

QString terminalText(const QString &text, bool keepLineFeeds)
{
    QString shown;
    shown.reserve(text.size());
    for (const QChar character : text) {
        const ushort code = character.unicode();
        const bool kept = code == '\t' || (keepLineFeeds && code == '\n');
        if ((code < 0x20 && !kept) || code == 0x7f)
            shown += QStringLiteral("\\x%1").arg(code, 2, 16, QLatin1Char('0'));
        else if (code >= 0x80 && code <= 0x9f)
            shown += QStringLiteral("\\u%1").arg(code, 4, 16, QLatin1Char('0'));
        else
            shown += character;
    }
    return shown;
}
