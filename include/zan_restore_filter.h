/*
 * The contract between zan_restore and the restore filter: names, the tag record and the messages,
 * byte for byte. For C, and for C++11 or later, in a kernel driver and in user mode. A driver needs
 * a 16-bit wchar_t. All integers are little-endian. docs/restore-filter-contract.md has the rules,
 * and says which fields a filter must not check.
 */
#ifndef ZAN_RESTORE_FILTER_H
#define ZAN_RESTORE_FILTER_H

#include <stddef.h>
#include <stdint.h>

/* The minifilter's registered name, under which its instances are listed. The suffix _A marks the
 * narrow form of a name. */
#define RESTORE_FILTER_NAME_A "zan_restore_filter"
#define RESTORE_FILTER_NAME L"" RESTORE_FILTER_NAME_A

/* The port of a volume: this prefix and the volume id, "Volume{GUID}" (44 characters), together 64
 * characters. */
#define RESTORE_FILTER_PORT_PREFIX_A "\\" RESTORE_FILTER_NAME_A "-"
#define RESTORE_FILTER_PORT_PREFIX L"" RESTORE_FILTER_PORT_PREFIX_A

/* Length in bytes of the connection context. Its content means nothing. */
#define RESTORE_FILTER_CONNECTION_CONTEXT_SIZE 40

/* The named stream of a local file that holds one RestoreTagRecord and nothing else. The first
 * macro is the stream's name; append the second to the file's path to open the stream. */
#define RESTORE_TAG_STREAM_NAME_A "restore_filter_tag"
#define RESTORE_TAG_STREAM L":" RESTORE_TAG_STREAM_NAME_A L":$DATA"

/* How to restore a file; 32 bits in C and in C++. The tool uses only these two values. A message
 * from another sender, or a tag of another writer, can hold others. */
#if defined(__cplusplus)
enum class RestoreStrategyKind : uint32_t {
  none = 0,  /* only what is read */
  simple = 1 /* the entire file, with concurrent reads of the backing file */
};
#else
typedef uint32_t RestoreStrategyKind;
enum { RestoreStrategyKind_none = 0, RestoreStrategyKind_simple = 1 };
#endif

typedef struct RestoreStrategy {
  RestoreStrategyKind kind;
  int32_t concurrentReads; /* for simple: as the user gave it, 0 and below included; else 0 */
} RestoreStrategy;

#define RESTORE_TAG 0x00000053u
#define RESTORE_TAG_DATA_LENGTH 0x3FE0u /* bytes after the 24-byte header, always */
#define RESTORE_TAG_PATH_OFFSET 8u      /* from the start of strategy to the start of path */
#define RESTORE_TAG_PATH_UNITS 8168u    /* longest path, in UTF-16 code units */

/* {5E2913DA-EAEE-47CB-B866-EDDCAEB3EBC3} in GUID byte order */
#define RESTORE_TAG_GUID \
  { 0xDA, 0x13, 0x29, 0x5E, 0xEE, 0xEA, 0xCB, 0x47, 0xB8, 0x66, 0xED, 0xDC, 0xAE, 0xB3, 0xEB, 0xC3 }

/* The entire content of the tag stream. The first 24 bytes have the layout of the header of
 * REPARSE_GUID_DATA_BUFFER, but the record is not a reparse point. */
typedef struct RestoreTagRecord {
  uint32_t tag;        /* RESTORE_TAG */
  uint16_t dataLength; /* RESTORE_TAG_DATA_LENGTH */
  uint16_t reserved;   /* 0 */
  uint8_t guid[16];    /* RESTORE_TAG_GUID */
  uint16_t pathOffset; /* RESTORE_TAG_PATH_OFFSET */
  uint16_t pathLength; /* bytes of path in use: even, at most 16336 */
  RestoreStrategy strategy;
  uint16_t path[RESTORE_TAG_PATH_UNITS]; /* the backing file, then zeros if there is room */
  uint32_t trailer;                      /* 0 */
} RestoreTagRecord;

#if defined(__cplusplus)
enum class ControlOperation : uint32_t {
  Ping = 0,
  StartAggressiveRestore = 1,
  StopAggressiveRestore = 2,
  QueryProgress = 3
};
#else
typedef uint32_t ControlOperation;
enum {
  ControlOperation_Ping = 0,
  ControlOperation_StartAggressiveRestore = 1,
  ControlOperation_StopAggressiveRestore = 2,
  ControlOperation_QueryProgress = 3
};
#endif

typedef struct ControlRequest {
  ControlOperation operation;
  RestoreStrategy strategy; /* of StartAggressiveRestore; otherwise ignore it (this tool sends 0) */
} ControlRequest;

/* The input buffer of every send. */
typedef struct ControlMessage {
  uint64_t fileHandle; /* the local file, in the sender's handle table */
  ControlRequest request;
  uint32_t padding; /* ignore it (this tool sends 0) */
} ControlMessage;

/* The output buffer of QueryProgress. The other operations have none. */
typedef struct ProgressInfo {
  uint64_t progress; /* how far the restoration has come */
  uint64_t total;    /* the value of progress when the restoration is finished */
} ProgressInfo;

#if defined(__cplusplus)
#define RESTORE_FILTER_CHECK(condition) static_assert(condition, #condition)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define RESTORE_FILTER_CHECK(condition) _Static_assert(condition, #condition)
#else /* an array type that is invalid when the condition is false */
#define RESTORE_FILTER_CHECK(condition) extern char restore_filter_check[(condition) ? 1 : -1]
#endif

RESTORE_FILTER_CHECK(sizeof(RestoreStrategyKind) == 4);
RESTORE_FILTER_CHECK(sizeof(RestoreStrategy) == 8);
RESTORE_FILTER_CHECK(offsetof(RestoreStrategy, concurrentReads) == 4);

RESTORE_FILTER_CHECK(sizeof(RestoreTagRecord) == 16376);
RESTORE_FILTER_CHECK(offsetof(RestoreTagRecord, dataLength) == 4);
RESTORE_FILTER_CHECK(offsetof(RestoreTagRecord, reserved) == 6);
RESTORE_FILTER_CHECK(offsetof(RestoreTagRecord, guid) == 8);
RESTORE_FILTER_CHECK(offsetof(RestoreTagRecord, pathOffset) == 24);
RESTORE_FILTER_CHECK(offsetof(RestoreTagRecord, pathLength) == 26);
RESTORE_FILTER_CHECK(offsetof(RestoreTagRecord, strategy) == 28);
RESTORE_FILTER_CHECK(offsetof(RestoreTagRecord, path) == 36);
RESTORE_FILTER_CHECK(offsetof(RestoreTagRecord, trailer) == 16372);
RESTORE_FILTER_CHECK(offsetof(RestoreTagRecord, strategy) + RESTORE_TAG_PATH_OFFSET ==
                     offsetof(RestoreTagRecord, path));
RESTORE_FILTER_CHECK(offsetof(RestoreTagRecord, pathOffset) + RESTORE_TAG_DATA_LENGTH ==
                     sizeof(RestoreTagRecord));

RESTORE_FILTER_CHECK(sizeof(ControlOperation) == 4);
RESTORE_FILTER_CHECK(sizeof(ControlRequest) == 12);
RESTORE_FILTER_CHECK(offsetof(ControlRequest, strategy) == 4);
RESTORE_FILTER_CHECK(sizeof(ControlMessage) == 24);
RESTORE_FILTER_CHECK(offsetof(ControlMessage, request) == 8);
RESTORE_FILTER_CHECK(offsetof(ControlMessage, padding) == 20);
RESTORE_FILTER_CHECK(sizeof(ProgressInfo) == 16);
RESTORE_FILTER_CHECK(offsetof(ProgressInfo, total) == 8);

#endif
