#ifndef DATABASE_DATABASE_H
#define DATABASE_DATABASE_H

// Everything the library exports, in one include.

#include "checksum.h"
#include "columndef.h"
#include "core.h"
#include "datetime.h"
#include "decimal.h"
#include "exception.h"
#include "field.h"
#include "fieldvalue.h"
#include "fieldtype.h"
#include "index.h"
#include "indexdepend.h"
#include "indexlimit.h"
#include "indexlist.h"
#include "indexsort.h"
#include "indexvector.h"
#include "livequery.h"
#include "logfile.h"
#include "masterindex.h"
#include "masterindex_fast.h"
#include "optionpricing.h"
#include "partitionlist.h"
#include "qtiocompressor.h"
#include "recordstrans.h"
#include "runnablemanager.h"
#include "settings.h"
#include "table.h"
#include "tableindexrebuilder.h"
#include "tableio.h"
#include "tablejoin.h"
#include "tablemodel.h"
#include "watchindex.h"

#endif // DATABASE_DATABASE_H
