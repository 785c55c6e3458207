// Compiled, never run: the umbrella header under QT_NO_KEYWORDS and
// -Wshadow -Werror, as a strict host application builds it.
#include <database/database.h>

int headerHygiene()
{
    return Table::base;
}
