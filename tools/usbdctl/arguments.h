#pragma once

#include <optional>
#include <utility>
#include <vector>

#include <QString>
#include <QStringList>

// Command-line handling of usbdctl. Options are kept in the order given because some commands
// (socket-send) build their request from that order; QCommandLineParser keeps only per-option
// order, which is why the tool has its own small parser.
namespace usbdctl {

struct OptionInfo {
    QString name;      // without the leading "--"
    QChar shortName;   // '\0' when there is none
    QString valueName; // empty for a flag
    QString help;
};

class Arguments {
public:
    bool has(const QString &name) const;
    // The last value given for the option (options given twice: the later one wins).
    QString value(const QString &name) const;
    QStringList values(const QString &name) const;
    // Every option occurrence, in command-line order.
    const std::vector<std::pair<QString, QString>> &ordered() const { return ordered_; }
    const QStringList &positionals() const { return positionals_; }

    void addOption(const QString &name, const QString &value)
    {
        ordered_.emplace_back(name, value);
    }
    void addPositional(const QString &value) { positionals_.append(value); }

private:
    std::vector<std::pair<QString, QString>> ordered_;
    QStringList positionals_;
};

// Parses args against options. Accepts "--name value", "--name=value", "-x value", and "--" to end
// the options. Options and positionals may be mixed. On failure *error says what is wrong.
bool parseArguments(const QStringList &args, const std::vector<OptionInfo> &options, Arguments *out,
                    QString *error);

// Unsigned numbers in decimal or with a 0x prefix, no larger than max. A leading zero is
// decimal: "010" is ten, not eight, because people type sizes and offsets here, not octal.
std::optional<quint64> parseUnsigned(const QString &text, quint64 max);

// "Usage" help text for a list of options, one per line, aligned.
QString describeOptions(const std::vector<OptionInfo> &options);

} // namespace usbdctl
