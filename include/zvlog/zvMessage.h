// The typed message constructors: one exported function per combination of
// argument types, so that the types a call site passes are fixed by the
// function's name.
//
//   CMessage*   _MSG_<Types>(CSourceContext* source, int number, <one parameter per token>,
//                            CMessageFactory::MessageDisposition disposition);
//   const char* _TSTR_<Types>(CSourceContext* source, int number, <one parameter per token>);
//
// Tokens and their parameters: Int32 int, UInt32 unsigned int, Int64 long long,
// UInt64 unsigned long long, String const char* (copied), Pointer const void*,
// DateTime struct timeval, CatalogName / SchemaName / TableName / ColumnName /
// LoginName / ObjectName const CDBObjName<8 / 7 / 1 / 13 / 11 / 0>&,
// QualTableName / QualObjectName const CQualDBObjName<1 / 0>& (names are
// stored as their text).
//
// Every constructor first records the caller's errno as the unsigned item
// ErrOSErrorCode of the thread's error context, and leaves errno as it found
// it. The message takes ownership of `source` (allocate it with new).
//
// _MSG_: makes message `number` from the default factory and returns
// CMessageFactory::ProcessMessage(message, disposition): IssueMessage issues
// it and returns null, ReturnMessage hands it to the caller.
//
// _TSTR_: makes the message only to format it in the default code page; the
// text lives in the calling thread's ring of 16 recent texts (it stays valid
// until the thread has made 16 more) and no message remains. A message that
// cannot be formatted gives "".
//
// _TSTR_ContextItem(source, number): the text of catalog entry `number` made
// without arguments; meant for the catalog's terms (numbers from 10000000,
// such as "table" or "column") that programs put into other messages.
//
// The declarations themselves are generated from zvMsg/MessageConstructors.def.
#pragma once

#include <sys/time.h>

#include "zvlog/DBObjName.h"
#include "zvlog/Export.h"
#include "zvlog/Message.h"
#include "zvlog/SourceContext.h"

#include "zvlog/zvMessageConstructors.h"
