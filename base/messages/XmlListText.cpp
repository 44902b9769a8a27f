#include "base/messages/XmlListTree.h"

#include "base/trace/Trace.h"

#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <utility>

namespace Morva {

namespace {

using Tree = XmlListTree;
using TreePointer = std::shared_ptr<Tree>;

QString const listElement = QStringLiteral("XmlList");
QString const itemElement = QStringLiteral("Item");
QString const nameAttribute = QStringLiteral("Name");
QString const nameUtf16Attribute = QStringLiteral("NameUtf16");
QString const typeAttribute = QStringLiteral("Type");
QString const idAttribute = QStringLiteral("Id");
QString const encodingAttribute = QStringLiteral("Encoding");
QString const utf16Encoding = QStringLiteral("utf16");

/// Whether XML 1.0 carries the text unchanged, as content and as an attribute. Line ends and tabs
/// count as not carried, since readers normalise them.
bool fitsXml(QString const& text) {
    for (qsizetype i = 0; i < text.size(); ++i) {
        char16_t const unit = text[i].unicode();
        if (QChar::isHighSurrogate(unit)) {
            if (i + 1 == text.size() || !text[i + 1].isLowSurrogate())
                return false;
            ++i;
        } else if (unit < 0x20 || QChar::isLowSurrogate(unit) || unit >= 0xFFFE || unit == 0xFEFF) {
            return false;
        }
    }
    return true;
}

QString toBase64(QString const& text) {
    QByteArray bytes;
    bytes.reserve(text.size() * 2);
    for (QChar const c : text) {
        bytes.append(static_cast<char>(c.unicode() & 0xFF));
        bytes.append(static_cast<char>(c.unicode() >> 8));
    }
    return QString::fromLatin1(bytes.toBase64());
}

std::optional<QByteArray> decodeBase64(QString const& text) {
    auto result = QByteArray::fromBase64Encoding(
        text.simplified().remove(QLatin1Char(' ')).toLatin1(),
        QByteArray::Base64Encoding | QByteArray::AbortOnBase64DecodingErrors);
    if (!result)
        return std::nullopt;
    return std::move(*result);
}

std::optional<QString> fromBase64(QString const& text) {
    auto const bytes = decodeBase64(text);
    if (!bytes || bytes->size() % 2 != 0)
        return std::nullopt;
    QString result(bytes->size() / 2, Qt::Uninitialized);
    for (qsizetype i = 0; i < result.size(); ++i)
        result[i] =
            QChar(static_cast<char16_t>(static_cast<std::uint8_t>(bytes->at(2 * i)) |
                                        static_cast<std::uint8_t>(bytes->at(2 * i + 1)) << 8));
    return result;
}

class Writer {
public:
    [[nodiscard]] std::optional<QByteArray> write(Tree const& tree) {
        QByteArray text;
        QXmlStreamWriter xml(&text);
        xml.setAutoFormatting(true);
        xml.setAutoFormattingIndent(1);
        xml.writeStartDocument();
        xml.writeStartElement(listElement);
        xml_ = &xml;
        if (!writeItems(tree, 0))
            return std::nullopt;
        xml.writeEndElement();
        xml.writeEndDocument();
        return text;
    }

private:
    bool writeItems(Tree const& tree, int depth) {
        for (auto const& item : tree.items) {
            xml_->writeStartElement(itemElement);
            if (fitsXml(item.name))
                xml_->writeAttribute(nameAttribute, item.name);
            else
                xml_->writeAttribute(nameUtf16Attribute, toBase64(item.name));
            bool const fine =
                std::visit([&](auto const& value) { return writeValue(value, depth); }, item.value);
            if (!fine)
                return false;
            xml_->writeEndElement();
        }
        return true;
    }

    void writeType(char const* type) { xml_->writeAttribute(typeAttribute, QLatin1String(type)); }
    void writeText(QString const& text) {
        if (fitsXml(text)) {
            xml_->writeCharacters(text);
        } else {
            xml_->writeAttribute(encodingAttribute, utf16Encoding);
            xml_->writeCharacters(toBase64(text));
        }
    }
    bool writeValue(bool value, int) {
        writeType("bool");
        xml_->writeCharacters(value ? QStringLiteral("true") : QStringLiteral("false"));
        return true;
    }
    bool writeValue(std::int32_t value, int) {
        writeType("int32");
        xml_->writeCharacters(QString::number(value));
        return true;
    }
    bool writeValue(std::uint32_t value, int) {
        writeType("uint32");
        xml_->writeCharacters(QString::number(value));
        return true;
    }
    bool writeValue(std::uint64_t value, int) {
        writeType("uint64");
        xml_->writeCharacters(QString::number(value));
        return true;
    }
    bool writeValue(QString const& value, int) {
        writeType("string");
        writeText(value);
        return true;
    }
    bool writeValue(MachineName const& value, int) {
        writeType("machine");
        if (value.id())
            xml_->writeAttribute(idAttribute, QString::number(value.id()));
        writeText(value.name());
        return true;
    }
    bool writeValue(QByteArray const& value, int) {
        writeType("buffer");
        xml_->writeCharacters(QString::fromLatin1(value.toBase64()));
        return true;
    }
    bool writeValue(TreePointer const& value, int depth) {
        writeType("list");
        return depth + 1 <= XmlList::maxDepth && writeItems(*value, depth + 1);
    }

    QXmlStreamWriter* xml_ = nullptr;
};

/// Recursion is bounded by `maxDepth`. A document type declaration is refused where it begins, so
/// that no entity is ever declared, let alone expanded.
class Reader {
public:
    explicit Reader(QByteArray const& text) : xml_(text) {}

    [[nodiscard]] TreePointer read() {
        auto tree = std::make_shared<Tree>();
        if (!nextTag() || !xml_.isStartElement() || xml_.name() != listElement)
            return fail(QStringLiteral("the text is not an XmlList")), nullptr;
        if (!readItems(*tree, 0))
            return nullptr;
        while (!xml_.atEnd()) {
            auto const token = xml_.readNext();
            if (token == QXmlStreamReader::StartElement)
                return fail(QStringLiteral("a second list")), nullptr;
        }
        return xml_.hasError() ? nullptr : tree;
    }

    [[nodiscard]] QString error() const {
        QString const reason = error_.isEmpty() ? xml_.errorString() : error_;
        return QStringLiteral("line %1: %2").arg(xml_.lineNumber()).arg(reason);
    }

private:
    bool fail(QString const& reason) {
        if (error_.isEmpty() && !xml_.hasError())
            error_ = reason;
        return false;
    }

    /// To the next start or end of an element; anything between but blanks is a fault.
    bool nextTag() {
        while (!xml_.atEnd()) {
            switch (xml_.readNext()) {
            case QXmlStreamReader::StartElement:
            case QXmlStreamReader::EndElement:
                return true;
            case QXmlStreamReader::StartDocument:
            case QXmlStreamReader::Comment:
            case QXmlStreamReader::ProcessingInstruction:
                break;
            case QXmlStreamReader::Characters:
                if (!xml_.isWhitespace())
                    return fail(QStringLiteral("text outside of an item"));
                break;
            case QXmlStreamReader::DTD:
                return fail(QStringLiteral("a document type declaration"));
            default:
                return fail(QStringLiteral("the text ends too early"));
            }
        }
        return fail(QStringLiteral("the text ends too early"));
    }

    bool readItems(Tree& tree, int depth) {
        for (;;) {
            if (!nextTag())
                return false;
            if (xml_.isEndElement())
                return true;
            if (xml_.name() != itemElement)
                return fail(QStringLiteral("an element that is no Item"));
            Tree::Item item;
            if (!readName(item.name) || !readValue(item.value, depth))
                return false;
            tree.items.push_back(std::move(item));
        }
    }

    bool readName(QString& name) {
        auto const attributes = xml_.attributes();
        if (attributes.hasAttribute(nameAttribute)) {
            name = attributes.value(nameAttribute).toString();
            return true;
        }
        if (attributes.hasAttribute(nameUtf16Attribute)) {
            if (auto const text = fromBase64(attributes.value(nameUtf16Attribute).toString())) {
                name = *text;
                return true;
            }
        }
        return fail(QStringLiteral("an Item without a name"));
    }

    bool readText(QString& text) {
        text = xml_.readElementText();
        return !xml_.hasError();
    }

    bool readString(QString& text) {
        auto const encoding = xml_.attributes().value(encodingAttribute).toString();
        if (!readText(text))
            return false;
        if (encoding.isEmpty())
            return true;
        auto const decoded = encoding == utf16Encoding ? fromBase64(text) : std::nullopt;
        if (!decoded)
            return fail(QStringLiteral("a string in a bad encoding"));
        text = *decoded;
        return true;
    }

    template <class T, class Convert> bool readNumber(Tree::Value& value, Convert convert) {
        QString text;
        if (!readText(text))
            return false;
        bool fits = false;
        auto const number = convert(text.trimmed(), &fits);
        if (!fits || !std::in_range<T>(number))
            return fail(QStringLiteral("a number that doesn't fit its type"));
        value = static_cast<T>(number);
        return true;
    }

    bool readBool(Tree::Value& value) {
        QString text;
        if (!readText(text))
            return false;
        text = text.trimmed();
        bool const yes = text == QLatin1String("true") || text == QLatin1String("1");
        if (!yes && text != QLatin1String("false") && text != QLatin1String("0"))
            return fail(QStringLiteral("a bool that is neither true nor false"));
        value = yes;
        return true;
    }

    bool readMachine(Tree::Value& value) {
        auto const idText = xml_.attributes().value(idAttribute).toString();
        bool fits = true;
        std::uint32_t const id = idText.isEmpty() ? 0 : idText.toUInt(&fits);
        QString name;
        if (!readString(name))
            return false;
        if (!fits)
            return fail(QStringLiteral("a machine id that is no number"));
        value = MachineName(name, id);
        return true;
    }

    bool readBuffer(Tree::Value& value) {
        QString text;
        if (!readText(text))
            return false;
        auto bytes = decodeBase64(text);
        if (!bytes)
            return fail(QStringLiteral("a buffer that is not base64"));
        value = std::move(*bytes);
        return true;
    }

    bool readValue(Tree::Value& value, int depth) {
        auto const type = xml_.attributes().value(typeAttribute).toString();
        if (type == QLatin1String("string")) {
            QString text;
            bool const fine = readString(text);
            value = text;
            return fine;
        }
        if (type == QLatin1String("list")) {
            if (depth + 1 > XmlList::maxDepth)
                return fail(QStringLiteral("lists nested too deep"));
            auto tree = std::make_shared<Tree>();
            bool const fine = readItems(*tree, depth + 1);
            value = std::move(tree);
            return fine;
        }
        if (type == QLatin1String("bool"))
            return readBool(value);
        if (type == QLatin1String("int32") || type == QLatin1String("uint32")) {
            auto const convert = [](QString const& text, bool* fits) {
                return text.toLongLong(fits);
            };
            return type == QLatin1String("int32") ? readNumber<std::int32_t>(value, convert)
                                                  : readNumber<std::uint32_t>(value, convert);
        }
        if (type == QLatin1String("uint64"))
            return readNumber<std::uint64_t>(
                value, [](QString const& text, bool* fits) { return text.toULongLong(fits); });
        if (type == QLatin1String("machine"))
            return readMachine(value);
        if (type == QLatin1String("buffer"))
            return readBuffer(value);
        return fail(QStringLiteral("an Item of no known type"));
    }

    QXmlStreamReader xml_;
    QString error_;
};

} // namespace

QByteArray XmlList::toXml() const {
    auto text = Writer().write(*tree_);
    if (!text)
        MORVA_TRACE(Always) << "A list is nested too deep for its text form";
    return text.value_or(QByteArray());
}

std::optional<XmlList> XmlList::fromXml(QByteArray const& text, QString* error) {
    if (text.size() > maxFormBytes) {
        if (error)
            *error = QStringLiteral("line 1: the text is too large");
        return std::nullopt;
    }
    Reader reader(text);
    auto tree = reader.read();
    if (!tree) {
        if (error)
            *error = reader.error();
        return std::nullopt;
    }
    return XmlList(std::move(tree));
}

} // namespace Morva
