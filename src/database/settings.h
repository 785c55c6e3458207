#ifndef DATABASE_SETTINGS_H
#define DATABASE_SETTINGS_H

#include "database_export.h"

#include <QtCore/QDir>
#include <QtCore/QSettings>

// Settings: the application's settings file, "settings.json" in the folder
// "settings" of the data folder, in the format the host registers as
// QSettings::CustomFormat1 (see registerJsonSettingsFormat). Where no such
// format is registered, every value reads as its default.
class DATABASE_EXPORT Settings : public QSettings
{
    Q_OBJECT

public:
    // Opens the file and enters `group` when it is not empty.
    explicit Settings(const QString &group = QString());

    // The data folder, with `subfolder` inside it (created when missing):
    // the per-user data location when the file ".installed" stands in the
    // application folder (unless forceApplicationDir), else the application
    // folder, in its "user" folder when useUserSubfolder. A folder that
    // cannot be created is not entered.
    static QDir dataDir(const QString &subfolder, bool forceApplicationDir = false, bool useUserSubfolder = true);
};

// Registers the JSON reader and writer of the settings file as a QSettings
// format and answers it. The library never calls this itself: the host
// application does, once, before any other custom format, so that it gets
// QSettings::CustomFormat1. Later calls answer the same format.
DATABASE_EXPORT QSettings::Format registerJsonSettingsFormat();

#endif // DATABASE_SETTINGS_H
