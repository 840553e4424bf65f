#include "link/JsonWriter.h"

void JsonWriter::separate()
{
    if (m_afterKey) {
        m_afterKey = false;
        return;
    }
    if (!m_filled.isEmpty()) {
        if (m_filled.last())
            m_text.append(',');
        m_filled.last() = true;
    }
}

JsonWriter& JsonWriter::beginObject()
{
    separate();
    m_text.append('{');
    m_filled.append(false);
    return *this;
}

JsonWriter& JsonWriter::endObject()
{
    m_filled.removeLast();
    m_text.append('}');
    return *this;
}

JsonWriter& JsonWriter::beginArray()
{
    separate();
    m_text.append('[');
    m_filled.append(false);
    return *this;
}

JsonWriter& JsonWriter::endArray()
{
    m_filled.removeLast();
    m_text.append(']');
    return *this;
}

JsonWriter& JsonWriter::key(QLatin1StringView name)
{
    string(QString(name));
    m_text.append(':');
    m_afterKey = true;
    return *this;
}

JsonWriter& JsonWriter::string(const QString& value)
{
    separate();
    // Escaped as text first, so that a surrogate pair reaches UTF-8 whole.
    QString escaped;
    escaped.reserve(value.size() + 2);
    escaped.append(u'"');
    for (const QChar c : value) {
        switch (const char16_t u = c.unicode()) {
        case u'"':
            escaped.append(u"\\\"");
            break;
        case u'\\':
            escaped.append(u"\\\\");
            break;
        case u'\n':
            escaped.append(u"\\n");
            break;
        case u'\r':
            escaped.append(u"\\r");
            break;
        case u'\t':
            escaped.append(u"\\t");
            break;
        case u'\b':
            escaped.append(u"\\b");
            break;
        case u'\f':
            escaped.append(u"\\f");
            break;
        default:
            if (u < 0x20)
                escaped.append(QStringLiteral("\\u%1").arg(int(u), 4, 16, QChar(u'0')));
            else
                escaped.append(c);
        }
    }
    escaped.append(u'"');
    m_text.append(escaped.toUtf8());
    return *this;
}

JsonWriter& JsonWriter::integer(qint64 value)
{
    separate();
    m_text.append(QByteArray::number(value));
    return *this;
}

JsonWriter& JsonWriter::boolean(bool value)
{
    separate();
    m_text.append(value ? "true" : "false");
    return *this;
}

JsonWriter& JsonWriter::null()
{
    separate();
    m_text.append("null");
    return *this;
}

JsonWriter& JsonWriter::strings(const QStringList& values)
{
    beginArray();
    for (const QString& value : values)
        string(value);
    return endArray();
}

JsonWriter& JsonWriter::integers(const QList<qint64>& values)
{
    beginArray();
    for (const qint64 value : values)
        integer(value);
    return endArray();
}
