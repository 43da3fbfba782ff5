// Proves that each record lies in memory as other builds expect it; there is no code here.
#include "IpcMessages.h"

static_assert(sizeof(int) == 4 && sizeof(long) == 8 && sizeof(long long) == 8);

static_assert(sizeof(Ipc_Header) == 16);
static_assert(offsetof(Ipc_Header, iGroup) == 0);
static_assert(offsetof(Ipc_Header, iType) == 4);
static_assert(offsetof(Ipc_Header, cVersion) == 8);

static_assert(sizeof(IpcRequest_Start) == 36);
static_assert(offsetof(IpcRequest_Start, iMountPort) == 16);
static_assert(offsetof(IpcRequest_Start, iNfsPort) == 20);
static_assert(offsetof(IpcRequest_Start, iUId) == 24);
static_assert(offsetof(IpcRequest_Start, iGId) == 28);
static_assert(offsetof(IpcRequest_Start, bReadOnly) == 32);

static_assert(sizeof(IpcRequest_AddMountPoint) == 1552);
static_assert(offsetof(IpcRequest_AddMountPoint, cLocalMountFolder) == 16);
static_assert(offsetof(IpcRequest_AddMountPoint, cExportName) == 1040);
static_assert(offsetof(IpcRequest_AddMountPoint, cIpcID) == 1296);

static_assert(sizeof(IpcRequest_RemoveMountPoint) == 1040);
static_assert(offsetof(IpcRequest_RemoveMountPoint, cLocalMountFolder) == 16);

static_assert(sizeof(IpcRequest_AddSession) == 1296);
static_assert(offsetof(IpcRequest_AddSession, cSessionID) == 16);
static_assert(offsetof(IpcRequest_AddSession, cLocalMountFolder) == 272);

static_assert(sizeof(IpcRequest_RemoveSession) == 272);
static_assert(offsetof(IpcRequest_RemoveSession, cSessionID) == 16);

static_assert(sizeof(IpcRequest_IsSessionExists) == 272);
static_assert(offsetof(IpcRequest_IsSessionExists, cSessionID) == 16);

static_assert(sizeof(IpcRequest_OpenRedirectedFile) == 1064);
static_assert(offsetof(IpcRequest_OpenRedirectedFile, cPath) == 16);
static_assert(offsetof(IpcRequest_OpenRedirectedFile, iSize) == 1040);
static_assert(offsetof(IpcRequest_OpenRedirectedFile, bCreateInfoFile) == 1048);
static_assert(offsetof(IpcRequest_OpenRedirectedFile, iInfoFileSegmentSizeMB) == 1052);
static_assert(offsetof(IpcRequest_OpenRedirectedFile, iInfoFileCheckPointSizeMB) == 1056);

static_assert(sizeof(IpcRequest_CloseRedirectedFile) == 1040);
static_assert(offsetof(IpcRequest_CloseRedirectedFile, cPath) == 16);

static_assert(sizeof(IpcRequest_CloseAllRedirectedFiles) == 1040);
static_assert(offsetof(IpcRequest_CloseAllRedirectedFiles, cPath) == 16);

static_assert(sizeof(IpcRequest_CloseOpenedFile) == 1040);
static_assert(offsetof(IpcRequest_CloseOpenedFile, cPath) == 16);

static_assert(sizeof(IpcRequest_CloseAllOpenedFiles) == 1040);
static_assert(offsetof(IpcRequest_CloseAllOpenedFiles, cPath) == 16);

static_assert(sizeof(IpcRequest_AddRedirectedFileSegment) == 2088);
static_assert(offsetof(IpcRequest_AddRedirectedFileSegment, cPath) == 16);
static_assert(offsetof(IpcRequest_AddRedirectedFileSegment, cSrcPath) == 1040);
static_assert(offsetof(IpcRequest_AddRedirectedFileSegment, iSrcFileOffset) == 2064);
static_assert(offsetof(IpcRequest_AddRedirectedFileSegment, iOffset) == 2072);
static_assert(offsetof(IpcRequest_AddRedirectedFileSegment, iLength) == 2080);

static_assert(sizeof(IpcRequest_ExportRedirectedFile) == 2064);
static_assert(offsetof(IpcRequest_ExportRedirectedFile, cPath) == 16);
static_assert(offsetof(IpcRequest_ExportRedirectedFile, cExportPath) == 1040);

static_assert(sizeof(IpcRequest_ExportRedirectedFileInfo) == 2068);
static_assert(offsetof(IpcRequest_ExportRedirectedFileInfo, cPath) == 16);
static_assert(offsetof(IpcRequest_ExportRedirectedFileInfo, cExportPath) == 1040);
static_assert(offsetof(IpcRequest_ExportRedirectedFileInfo, bMergeRange) == 2064);

static_assert(sizeof(IpcRequest_SetLogControl) == 20);
static_assert(offsetof(IpcRequest_SetLogControl, iLogControl) == 16);

static_assert(sizeof(IpcRequest_GetMountInfo) == 276);
static_assert(offsetof(IpcRequest_GetMountInfo, cIpcID) == 16);
static_assert(offsetof(IpcRequest_GetMountInfo, bClientMountedOnly) == 272);
static_assert(offsetof(IpcRequest_GetMountInfo, bPrintDetails) == 273);

static_assert(sizeof(IpcRequest_GetSessionInfo) == 276);
static_assert(offsetof(IpcRequest_GetSessionInfo, cIpcID) == 16);
static_assert(offsetof(IpcRequest_GetSessionInfo, bPrintDetails) == 272);

static_assert(sizeof(IpcRequest_GetVSphereInfo) == 276);
static_assert(offsetof(IpcRequest_GetVSphereInfo, cIpcID) == 16);
static_assert(offsetof(IpcRequest_GetVSphereInfo, bPrintDetails) == 272);

static_assert(sizeof(IpcRequest_RunTestMode) == 3352);
static_assert(offsetof(IpcRequest_RunTestMode, cIpcID) == 16);
static_assert(offsetof(IpcRequest_RunTestMode, cDirPath) == 272);
static_assert(offsetof(IpcRequest_RunTestMode, iFileSize) == 3344);

static_assert(sizeof(IpcRequest_SetBoolean) == 20);
static_assert(offsetof(IpcRequest_SetBoolean, bVal) == 16);

static_assert(sizeof(IpcRequest_AddVSphereInfo) == 1296);
static_assert(offsetof(IpcRequest_AddVSphereInfo, cDatastoreMoid) == 16);
static_assert(offsetof(IpcRequest_AddVSphereInfo, cHost) == 272);
static_assert(offsetof(IpcRequest_AddVSphereInfo, cPort) == 528);
static_assert(offsetof(IpcRequest_AddVSphereInfo, cUser) == 784);
static_assert(offsetof(IpcRequest_AddVSphereInfo, cPwd) == 1040);

static_assert(sizeof(IpcRequest_RemoveVSphereInfo) == 272);
static_assert(offsetof(IpcRequest_RemoveVSphereInfo, cDatastoreMoid) == 16);

static_assert(sizeof(IpcReply_Bool) == 20);
static_assert(offsetof(IpcReply_Bool, bVal) == 16);

static_assert(sizeof(IpcReply_Long) == 24);
static_assert(offsetof(IpcReply_Long, lVal) == 16);

static_assert(sizeof(IpcReply_Int) == 20);
static_assert(offsetof(IpcReply_Int, iVal) == 16);

static_assert(sizeof(IpcReply_Message) == 2064);
static_assert(offsetof(IpcReply_Message, cMsg) == 16);

static_assert(sizeof(IpcCb_LogMessage) == 2324);
static_assert(offsetof(IpcCb_LogMessage, cID) == 16);
static_assert(offsetof(IpcCb_LogMessage, cMsg) == 272);
static_assert(offsetof(IpcCb_LogMessage, iType) == 2320);

static_assert(sizeof(IpcCb_SetRedirectedFileAttributes) == 1344);
static_assert(offsetof(IpcCb_SetRedirectedFileAttributes, cID) == 16);
static_assert(offsetof(IpcCb_SetRedirectedFileAttributes, cPath) == 272);
static_assert(offsetof(IpcCb_SetRedirectedFileAttributes, bSize) == 1296);
static_assert(offsetof(IpcCb_SetRedirectedFileAttributes, iSize) == 1304);
static_assert(offsetof(IpcCb_SetRedirectedFileAttributes, bAccessTime) == 1312);
static_assert(offsetof(IpcCb_SetRedirectedFileAttributes, lAccessTimeSec) == 1320);
static_assert(offsetof(IpcCb_SetRedirectedFileAttributes, bLastModifiedTime) == 1328);
static_assert(offsetof(IpcCb_SetRedirectedFileAttributes, lLastModifiedTimeSec) == 1336);

static_assert(sizeof(IpcCb_RemoveRedirectedFile) == 1296);
static_assert(offsetof(IpcCb_RemoveRedirectedFile, cID) == 16);
static_assert(offsetof(IpcCb_RemoveRedirectedFile, cPath) == 272);

static_assert(sizeof(IpcCb_RenameRedirectedFile) == 2320);
static_assert(offsetof(IpcCb_RenameRedirectedFile, cID) == 16);
static_assert(offsetof(IpcCb_RenameRedirectedFile, cPathFm) == 272);
static_assert(offsetof(IpcCb_RenameRedirectedFile, cPathTo) == 1296);

static_assert(sizeof(IpcCb_WriteRedirectedFile) == 1312);
static_assert(offsetof(IpcCb_WriteRedirectedFile, cID) == 16);
static_assert(offsetof(IpcCb_WriteRedirectedFile, cPath) == 272);
static_assert(offsetof(IpcCb_WriteRedirectedFile, iSeek) == 1296);
static_assert(offsetof(IpcCb_WriteRedirectedFile, iSeekType) == 1304);
static_assert(offsetof(IpcCb_WriteRedirectedFile, iLen) == 1308);
