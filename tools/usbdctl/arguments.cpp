#include "arguments.h"

#include <algorithm>
#include <charconv>

namespace usbdctl {

namespace {

const OptionInfo *findLong(const std::vector<OptionInfo> &options, const QString &name)
{
    for (const OptionInfo &option : options) {
        if (option.name == name)
            return &option;
    }
    return nullptr;
}

const OptionInfo *findShort(const std::vector<OptionInfo> &options, QChar name)
{
    for (const OptionInfo &option : options) {
        if (!option.shortName.isNull() && option.shortName == name)
            return &option;
    }
    return nullptr;
}

} // namespace

bool Arguments::has(const QString &name) const
{
    return std::any_of(ordered_.begin(), ordered_.end(),
                       [&](const auto &option) { return option.first == name; });
}

QString Arguments::value(const QString &name) const
{
    for (auto it = ordered_.rbegin(); it != ordered_.rend(); ++it) {
        if (it->first == name)
            return it->second;
    }
    return QString();
}

QStringList Arguments::values(const QString &name) const
{
    QStringList result;
    for (const auto &option : ordered_) {
        if (option.first == name)
            result.append(option.second);
    }
    return result;
}

bool parseArguments(const QStringList &args, const std::vector<OptionInfo> &options, Arguments *out,
                    QString *error)
{
    bool optionsEnded = false;
    for (int i = 0; i < args.size(); ++i) {
        const QString &arg = args.at(i);
        if (optionsEnded || arg == QLatin1String("-") || !arg.startsWith(QLatin1Char('-'))) {
            out->addPositional(arg);
            continue;
        }
        if (arg == QLatin1String("--")) {
            optionsEnded = true;
            continue;
        }

        const OptionInfo *option = nullptr;
        QString inlineValue;
        bool hasInlineValue = false;
        if (arg.startsWith(QLatin1String("--"))) {
            QString name = arg.mid(2);
            const int equals = name.indexOf(QLatin1Char('='));
            if (equals >= 0) {
                inlineValue = name.mid(equals + 1);
                hasInlineValue = true;
                name.truncate(equals);
            }
            option = findLong(options, name);
        } else if (arg.size() == 2) {
            option = findShort(options, arg.at(1));
        }
        if (!option) {
            *error = QStringLiteral("unknown option %1").arg(arg);
            return false;
        }

        if (option->valueName.isEmpty()) {
            if (hasInlineValue) {
                *error = QStringLiteral("--%1 takes no value").arg(option->name);
                return false;
            }
            out->addOption(option->name, QString());
            continue;
        }
        if (!hasInlineValue) {
            if (i + 1 >= args.size()) {
                *error =
                    QStringLiteral("--%1 needs a value (%2)").arg(option->name, option->valueName);
                return false;
            }
            inlineValue = args.at(++i);
        }
        out->addOption(option->name, inlineValue);
    }
    return true;
}

std::optional<quint64> parseUnsigned(const QString &text, quint64 max)
{
    const QByteArray trimmed = text.trimmed().toLatin1();
    const char *first = trimmed.constData();
    const char *last = first + trimmed.size();
    int base = 10;
    if (trimmed.startsWith("0x") || trimmed.startsWith("0X")) {
        first += 2;
        base = 16;
    }
    // from_chars takes digits only: no sign, no space, no second prefix, and says when the
    // value does not fit.
    quint64 value = 0;
    const auto [end, error] = std::from_chars(first, last, value, base);
    if (first == last || error != std::errc() || end != last || value > max)
        return std::nullopt;
    return value;
}

QString describeOptions(const std::vector<OptionInfo> &options)
{
    QStringList left;
    int width = 0;
    for (const OptionInfo &option : options) {
        QString text = option.shortName.isNull() ? QStringLiteral("      ")
                                                 : QStringLiteral("  -%1, ").arg(option.shortName);
        text += QStringLiteral("--") + option.name;
        if (!option.valueName.isEmpty())
            text += QLatin1Char(' ') + option.valueName;
        width = std::max(width, int(text.size()));
        left.append(text);
    }
    QString result;
    for (size_t i = 0; i < options.size(); ++i) {
        const QString indent(width + 2, QLatin1Char(' '));
        QString help = options[i].help;
        help.replace(QLatin1Char('\n'), QLatin1Char('\n') + indent);
        result += left.at(int(i)).leftJustified(width + 2) + help + QLatin1Char('\n');
    }
    return result;
}

} // namespace usbdctl
