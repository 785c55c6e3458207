#include <database/database.h>

#include <cstdio>

int main()
{
    const decimal sum = decimal::fromString(QStringLiteral("1.25")) + decimal(5, 1);
    const bool ok = sum.toString() == QLatin1String("1.75") && qChecksum64("123456789", 9) == 0x62EC59E3F1A4F00AULL;
    std::printf("client: %s\n", ok ? "ok" : "wrong results");
    return ok ? 0 : 1;
}
