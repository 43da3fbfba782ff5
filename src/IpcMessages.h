// What travels over a local channel: one fixed-layout message each way per connection.
// Both ends run on the same machine, so a message is the memory of one record in the machine's own
// byte order and alignment. Other builds talk to this one: the layouts, which IpcMessages.cpp
// proves, and all numbers are fixed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "Text.h"

constexpr size_t IPC_MESSAGE_SIZE = 4096;  // bytes; no message exceeds it
constexpr size_t IPC_CHANNEL_SIZE = 255;   // bytes of a channel's path with its zero
constexpr size_t IPC_PATH_SIZE = 1024;     // bytes of a text field with its zero, as the next two
constexpr size_t IPC_TEXT_SIZE = 256;
constexpr size_t IPC_TEST_PATH_SIZE = 3072;

constexpr char IPC_VERSION[] = "1.2";

enum IPC_GROUP : int {
    IPC_GROUP_NONE = 0,
    IPC_GROUP_REPLY = 1,
    IPC_GROUP_REQUEST = 2,
    IPC_GROUP_CALLBACK = 3,
    IPC_GROUP_COUNT = 4,
};

enum IPC_REQUEST_TYPE : int {
    IPC_REQUEST_TYPE_NONE = 0,
    IPC_REQUEST_TYPE_GET_VERSION = 1,
    IPC_REQUEST_TYPE_GET_DESCRIPTION = 2,
    IPC_REQUEST_TYPE_IS_SERVER_RUNNING = 3,
    IPC_REQUEST_TYPE_START = 4,
    IPC_REQUEST_TYPE_ADD_MOUNT_POINT = 5,
    IPC_REQUEST_TYPE_REMOVE_MOUNT_POINT = 6,
    IPC_REQUEST_TYPE_ADD_SESSION = 7,
    IPC_REQUEST_TYPE_REMOVE_SESSION = 8,
    IPC_REQUEST_TYPE_IS_SESSION_EXIST = 9,
    IPC_REQUEST_TYPE_OPEN_RD_FILE = 10,
    IPC_REQUEST_TYPE_CLOSE_RD_FILE = 11,
    IPC_REQUEST_TYPE_CLOSE_ALL_RD_FILE = 12,
    IPC_REQUEST_TYPE_ADD_RD_FILE_SEG = 13,
    IPC_REQUEST_TYPE_EXPORT_RD_FILE = 14,
    IPC_REQUEST_TYPE_EXPORT_RD_FILE_INFO = 15,
    IPC_REQUEST_TYPE_CLOSE_FILE = 16,
    IPC_REQUEST_TYPE_CLOSE_ALL_FILE = 17,
    IPC_REQUEST_TYPE_SET_LOG_CTRL = 18,
    IPC_REQUEST_TYPE_GET_MOUNT_INFO = 19,
    IPC_REQUEST_TYPE_GET_SESSION_INFO = 20,
    IPC_REQUEST_TYPE_RUN_TEST_MODE = 21,
    IPC_REQUEST_TYPE_AUTO_SHUTDOWN = 22,
    IPC_REQUEST_TYPE_GET_SERVER_STATUS = 23,
    IPC_REQUEST_TYPE_SET_DEBUG_ACTION_ENABLED = 24,
    IPC_REQUEST_TYPE_GET_VSPHERE_INFO = 25,
    IPC_REQUEST_TYPE_ADD_VSPHERE_INFO = 26,
    IPC_REQUEST_TYPE_REMOVE_VSPHERE_INFO = 27,
    IPC_REQUEST_TYPE_COUNT = 28,
};

enum IPC_REPLY_TYPE : int {
    IPC_REPLY_TYPE_NONE = 0,
    IPC_REPLY_TYPE_BOOL = 1,
    IPC_REPLY_TYPE_LONG = 2,
    IPC_REPLY_TYPE_INT = 3,
    IPC_REPLY_TYPE_EXPT = 4,  // text of a failure
    IPC_REPLY_TYPE_MSG = 5,   // text that was asked for
    IPC_REPLY_TYPE_COUNT = 6,
};

enum IPC_CALLBACK_TYPE : int {
    IPC_CALLBACK_TYPE_NONE = 0,
    IPC_CALLBACK_TYPE_MESSAGE = 1,
    IPC_CALLBACK_TYPE_SET_RD_FILE_ATTR = 2,
    IPC_CALLBACK_TYPE_REMOVE_RD_FILE = 3,
    IPC_CALLBACK_TYPE_RENAME_RD_FILE = 4,
    IPC_CALLBACK_TYPE_WRITE_RD_FILE = 5,
    IPC_CALLBACK_TYPE_COUNT = 6,
};

// What a message callback carries.
enum IPC_MESSAGE_TYPE : int {
    IPC_MESSAGE_TYPE_NONE = 0,
    IPC_MESSAGE_TYPE_INFO = 1,
    IPC_MESSAGE_TYPE_ERROR = 2,
    IPC_MESSAGE_TYPE_RAW = 3,
    IPC_MESSAGE_TYPE_COUNT = 4,
};

struct Ipc_Header {
    int32_t iGroup;    // IPC_GROUP
    int32_t iType;     // IPC_REQUEST_TYPE, IPC_REPLY_TYPE or IPC_CALLBACK_TYPE
    char cVersion[8];  // of the sender, zeros behind it; nobody checks it
};

// ---- Requests. A flag is a byte, not a bool: a hostile peer may send any value. ----

struct IpcRequest_Start {
    Ipc_Header header;
    int32_t iMountPort;
    int32_t iNfsPort;
    uint32_t iUId;
    uint32_t iGId;
    uint8_t bReadOnly;
};

struct IpcRequest_AddMountPoint {
    Ipc_Header header;
    char cLocalMountFolder[IPC_PATH_SIZE];
    char cExportName[IPC_TEXT_SIZE];
    char cIpcID[IPC_TEXT_SIZE];  // of the client that asks, here and below
};

struct IpcRequest_RemoveMountPoint {
    Ipc_Header header;
    char cLocalMountFolder[IPC_PATH_SIZE];
};

struct IpcRequest_AddSession {
    Ipc_Header header;
    char cSessionID[IPC_TEXT_SIZE];
    char cLocalMountFolder[IPC_PATH_SIZE];
};

struct IpcRequest_RemoveSession {
    Ipc_Header header;
    char cSessionID[IPC_TEXT_SIZE];
};

using IpcRequest_IsSessionExists = IpcRequest_RemoveSession;

struct IpcRequest_OpenRedirectedFile {
    Ipc_Header header;
    char cPath[IPC_PATH_SIZE];
    int64_t iSize;
    uint8_t bCreateInfoFile;
    int32_t iInfoFileSegmentSizeMB;
    int32_t iInfoFileCheckPointSizeMB;
};

struct IpcRequest_CloseRedirectedFile {
    Ipc_Header header;
    char cPath[IPC_PATH_SIZE];
};

using IpcRequest_CloseAllRedirectedFiles = IpcRequest_CloseRedirectedFile;
using IpcRequest_CloseOpenedFile = IpcRequest_CloseRedirectedFile;
using IpcRequest_CloseAllOpenedFiles = IpcRequest_CloseRedirectedFile;

struct IpcRequest_AddRedirectedFileSegment {
    Ipc_Header header;
    char cPath[IPC_PATH_SIZE];
    char cSrcPath[IPC_PATH_SIZE];
    int64_t iSrcFileOffset;
    int64_t iOffset;
    int64_t iLength;
};

struct IpcRequest_ExportRedirectedFile {
    Ipc_Header header;
    char cPath[IPC_PATH_SIZE];
    char cExportPath[IPC_PATH_SIZE];
};

struct IpcRequest_ExportRedirectedFileInfo {
    Ipc_Header header;
    char cPath[IPC_PATH_SIZE];
    char cExportPath[IPC_PATH_SIZE];
    uint8_t bMergeRange;
};

struct IpcRequest_SetLogControl {
    Ipc_Header header;
    int32_t iLogControl;
};

struct IpcRequest_GetMountInfo {
    Ipc_Header header;
    char cIpcID[IPC_TEXT_SIZE];
    uint8_t bClientMountedOnly;
    uint8_t bPrintDetails;
};

struct IpcRequest_GetSessionInfo {
    Ipc_Header header;
    char cIpcID[IPC_TEXT_SIZE];
    uint8_t bPrintDetails;
};

using IpcRequest_GetVSphereInfo = IpcRequest_GetSessionInfo;

struct IpcRequest_RunTestMode {
    Ipc_Header header;
    char cIpcID[IPC_TEXT_SIZE];
    char cDirPath[IPC_TEST_PATH_SIZE];
    int64_t iFileSize;
};

struct IpcRequest_SetBoolean {
    Ipc_Header header;
    uint8_t bVal;
};

struct IpcRequest_AddVSphereInfo {
    Ipc_Header header;
    char cDatastoreMoid[IPC_TEXT_SIZE];
    char cHost[IPC_TEXT_SIZE];
    char cPort[IPC_TEXT_SIZE];
    char cUser[IPC_TEXT_SIZE];
    char cPwd[IPC_TEXT_SIZE];  // in clear; it stays on this machine
};

struct IpcRequest_RemoveVSphereInfo {
    Ipc_Header header;
    char cDatastoreMoid[IPC_TEXT_SIZE];
};

// ---- Replies ----

struct IpcReply_Bool {
    Ipc_Header header;
    uint8_t bVal;
};

struct IpcReply_Long {
    Ipc_Header header;
    int64_t lVal;
};

struct IpcReply_Int {
    Ipc_Header header;
    int32_t iVal;
};

struct IpcReply_Message {
    Ipc_Header header;
    char cMsg[REASON_SIZE];
};

// ---- Callbacks. cID is the ID under which the event happened. ----

struct IpcCb_LogMessage {
    Ipc_Header header;
    char cID[IPC_TEXT_SIZE];
    char cMsg[REASON_SIZE];
    int32_t iType;  // IPC_MESSAGE_TYPE
};

struct IpcCb_SetRedirectedFileAttributes {
    Ipc_Header header;
    char cID[IPC_TEXT_SIZE];
    char cPath[IPC_PATH_SIZE];
    uint8_t bSize;
    uint64_t iSize;
    uint8_t bAccessTime;
    uint64_t lAccessTimeSec;
    uint8_t bLastModifiedTime;
    uint64_t lLastModifiedTimeSec;
};

struct IpcCb_RemoveRedirectedFile {
    Ipc_Header header;
    char cID[IPC_TEXT_SIZE];
    char cPath[IPC_PATH_SIZE];
};

struct IpcCb_RenameRedirectedFile {
    Ipc_Header header;
    char cID[IPC_TEXT_SIZE];
    char cPathFm[IPC_PATH_SIZE];
    char cPathTo[IPC_PATH_SIZE];
};

struct IpcCb_WriteRedirectedFile {
    Ipc_Header header;
    char cID[IPC_TEXT_SIZE];
    char cPath[IPC_PATH_SIZE];
    uint64_t iSeek;
    int32_t iSeekType;
    uint32_t iLen;
};

// ---- Buffers ----

// One message in memory.
struct IpcDataBuf {
    alignas(8) char cBuf[IPC_MESSAGE_SIZE];
    long lDataLen;  // bytes to send, or bytes received
};

struct IpcDataInst {
    IpcDataBuf request;
    IpcDataBuf reply;
};

// A message seen as one of the records above, whatever its header says.
template <typename Record>
Record* AsRecord(IpcDataBuf* pData)
{
    static_assert(std::is_trivially_copyable_v<Record> && std::is_standard_layout_v<Record>);
    static_assert(sizeof(Record) <= sizeof(pData->cBuf));
    static_assert(alignof(Record) <= alignof(IpcDataBuf));
    return reinterpret_cast<Record*>(pData->cBuf);
}

// A text field as it came in. Its last byte becomes zero, since a hostile peer may have sent none.
template <size_t SIZE>
char* GetField(char (&cField)[SIZE])
{
    cField[SIZE - 1] = '\0';
    return cField;
}

// Copies a text into a field, cut to fit and terminated; false if it was cut. Null is no text.
template <size_t SIZE>
bool SetField(char (&cField)[SIZE], const char* pcText)
{
    CopyText(cField, SIZE, pcText);
    return pcText == nullptr || std::char_traits<char>::length(pcText) < SIZE;
}
