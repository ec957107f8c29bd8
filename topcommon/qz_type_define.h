// Fixed-width type names shared by the publisher, its sinks and the
// in-process RTSP server.
#ifndef TOPCOMMON_QZ_TYPE_DEFINE_H_
#define TOPCOMMON_QZ_TYPE_DEFINE_H_

#include <cstdint>

typedef std::uint8_t QZ_UINT8;
typedef QZ_UINT8 QZ_BYTE;
typedef std::int32_t QZ_INT32;
typedef std::uint32_t QZ_UINT32;
// unsigned long long rather than uint64_t so that the log formats' %llu and
// %lld match on every platform without casts.
typedef unsigned long long QZ_UINT64;
typedef void* QZ_HANDLE;
typedef void* QZ_PVOID;

// Namespace of the application event manager and its event record.
#define QZ_NAMESPACE qz_top_common

#endif  // TOPCOMMON_QZ_TYPE_DEFINE_H_
