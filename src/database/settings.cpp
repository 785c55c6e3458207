#include "settings.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QStandardPaths>

namespace {

// Changes into `name`, creating it when missing; stays put when it cannot.
void enter(QDir &dir, const QString &name)
{
    if (dir.cd(name))
        return;
    if (dir.mkpath(name))
        dir.cd(name);
}

void flatten(const QJsonObject &object, const QString &prefix, QSettings::SettingsMap &map)
{
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QString key = prefix.isEmpty() ? it.key() : prefix + QLatin1Char('/') + it.key();
        if (it.value().isObject())
            flatten(it.value().toObject(), key, map);
        else
            map.insert(key, it.value().toVariant());
    }
}

void insertNested(QJsonObject &object, const QStringList &path, int at, const QJsonValue &value)
{
    if (at == path.size() - 1) {
        object.insert(path[at], value);
        return;
    }
    QJsonObject child = object.value(path[at]).toObject();
    insertNested(child, path, at + 1, value);
    object.insert(path[at], child);
}

bool readJson(QIODevice &device, QSettings::SettingsMap &map)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(device.readAll(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return false;
    flatten(document.object(), QString(), map);
    return true;
}

bool writeJson(QIODevice &device, const QSettings::SettingsMap &map)
{
    QJsonObject root;
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        insertNested(root, it.key().split(QLatin1Char('/')), 0, QJsonValue::fromVariant(it.value()));
    return device.write(QJsonDocument(root).toJson()) != -1;
}

} // namespace

Settings::Settings(const QString &group)
    : QSettings(QFileInfo(dataDir(QStringLiteral("settings"), false, true), QStringLiteral("settings.json")).filePath(),
                QSettings::CustomFormat1)
{
    if (!group.isEmpty())
        beginGroup(group);
}

QDir Settings::dataDir(const QString &subfolder, bool forceApplicationDir, bool useUserSubfolder)
{
    const QString applicationDir = QCoreApplication::applicationDirPath();
    const bool portable = !QFileInfo::exists(QFileInfo(QDir(applicationDir), QStringLiteral(".installed")).filePath());
    QDir dir;
    if (!portable && !forceApplicationDir) {
        dir = QDir(QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation));
        if (!dir.exists())
            dir.mkpath(QStringLiteral("."));
    } else {
        dir = QDir(applicationDir);
        if (useUserSubfolder)
            enter(dir, QStringLiteral("user"));
    }
    if (!subfolder.isEmpty())
        enter(dir, subfolder);
    return dir;
}

QSettings::Format registerJsonSettingsFormat()
{
    static const QSettings::Format format = [] {
        const QSettings::Format registered = QSettings::registerFormat(QStringLiteral("json"), readJson, writeJson);
        if (registered != QSettings::CustomFormat1)
            qWarning("registerJsonSettingsFormat: the JSON format is not QSettings::CustomFormat1; "
                     "the library's settings will not be read");
        return registered;
    }();
    return format;
}
