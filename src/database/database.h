#ifndef DATABASE_DATABASE_H
#define DATABASE_DATABASE_H

// Everything the library exports, in one include.

#include "checksum.h"
#include "datetime.h"
#include "decimal.h"
#include "exception.h"
#include "fieldtype.h"

#endif // DATABASE_DATABASE_H
