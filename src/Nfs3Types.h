// The numbers and records of NFS version 3 (RFC 1813), by the protocol's own names.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

constexpr unsigned int NFS_V3 = 3;
constexpr unsigned int NFS3_FHSIZE = 56;         // bytes of every handle that is handed out
constexpr unsigned int NFS3_CREATEVERFSIZE = 8;  // bytes

enum NfsProcedure : unsigned int {
    NFSPROC3_NULL = 0,
    NFSPROC3_GETATTR = 1,
    NFSPROC3_SETATTR = 2,
    NFSPROC3_LOOKUP = 3,
    NFSPROC3_ACCESS = 4,
    NFSPROC3_READLINK = 5,
    NFSPROC3_READ = 6,
    NFSPROC3_WRITE = 7,
    NFSPROC3_CREATE = 8,
    NFSPROC3_MKDIR = 9,
    NFSPROC3_SYMLINK = 10,
    NFSPROC3_MKNOD = 11,
    NFSPROC3_REMOVE = 12,
    NFSPROC3_RMDIR = 13,
    NFSPROC3_RENAME = 14,
    NFSPROC3_LINK = 15,
    NFSPROC3_READDIR = 16,
    NFSPROC3_READDIRPLUS = 17,
    NFSPROC3_FSSTAT = 18,
    NFSPROC3_FSINFO = 19,
    NFSPROC3_PATHCONF = 20,
    NFSPROC3_COMMIT = 21,
    NFSPROC3_MAX = 22,
};

enum nfsstat3 : unsigned int {
    NFS3_OK = 0,
    NFS3ERR_PERM = 1,
    NFS3ERR_NOENT = 2,
    NFS3ERR_IO = 5,
    NFS3ERR_NXIO = 6,
    NFS3ERR_ACCES = 13,
    NFS3ERR_EXIST = 17,
    NFS3ERR_XDEV = 18,
    NFS3ERR_NODEV = 19,
    NFS3ERR_NOTDIR = 20,
    NFS3ERR_ISDIR = 21,
    NFS3ERR_INVAL = 22,
    NFS3ERR_FBIG = 27,
    NFS3ERR_NOSPC = 28,
    NFS3ERR_ROFS = 30,
    NFS3ERR_MLINK = 31,
    NFS3ERR_NAMETOOLONG = 63,
    NFS3ERR_NOTEMPTY = 66,
    NFS3ERR_DQUOT = 69,
    NFS3ERR_STALE = 70,
    NFS3ERR_REMOTE = 71,
    NFS3ERR_BADHANDLE = 10001,
    NFS3ERR_NOT_SYNC = 10002,
    NFS3ERR_BAD_COOKIE = 10003,
    NFS3ERR_NOTSUPP = 10004,
    NFS3ERR_TOOSMALL = 10005,
    NFS3ERR_SERVERFAULT = 10006,
    NFS3ERR_BADTYPE = 10007,
    NFS3ERR_JUKEBOX = 10008,
};

enum ftype3 : unsigned int {
    NF3NONE = 0,  // ours: what lstat reports is of no type that the protocol knows
    NF3REG = 1,
    NF3DIR = 2,
    NF3BLK = 3,
    NF3CHR = 4,
    NF3LNK = 5,
    NF3SOCK = 6,
    NF3FIFO = 7,
};

enum AccessBit : unsigned int {
    ACCESS3_READ = 1,
    ACCESS3_LOOKUP = 2,
    ACCESS3_MODIFY = 4,
    ACCESS3_EXTEND = 8,
    ACCESS3_DELETE = 16,
    ACCESS3_EXECUTE = 32,
};

enum FileSystemProperty : unsigned int {
    FSF3_LINK = 1,
    FSF3_SYMLINK = 2,
    FSF3_HOMOGENEOUS = 8,
    FSF3_CANSETTIME = 16,
};

enum stable_how : unsigned int {
    UNSTABLE = 0,
    DATA_SYNC = 1,
    FILE_SYNC = 2,
};

enum time_how : unsigned int {
    DONT_CHANGE = 0,
    SET_TO_SERVER_TIME = 1,
    SET_TO_CLIENT_TIME = 2,
};

enum createmode3 : unsigned int {
    UNCHECKED = 0,
    GUARDED = 1,
    EXCLUSIVE = 2,
};

// Bytes that stay where they were received; good until the request is done.
struct opaque {
    const unsigned char* pBuf = nullptr;
    unsigned int iBufLen = 0;  // bytes
};

struct nfs_fh3 {
    unsigned char cHandle[NFS3_FHSIZE] = {};
};

// A path or a name out of a request.
class COpaquePath {
public:
    const char* Get() const { return m_sPath.c_str(); }
    void Set(const char* pcPath) { m_sPath = pcPath; }

    // Takes iLength bytes, or those before the first zero among them.
    void Set(const unsigned char* pcPath, unsigned int iLength)
    {
        const auto* pcText = reinterpret_cast<const char*>(pcPath);
        m_sPath.assign(pcText, strnlen(pcText, iLength));
    }

private:
    std::string m_sPath;
};

struct diropargs3 {
    std::string dir;   // the directory's local path, not its handle
    std::string name;  // as sent
};

struct specdata3 {
    uint32_t specdata1 = 0;
    uint32_t specdata2 = 0;
};

struct nfstime3 {
    uint32_t seconds = 0;
    uint32_t nseconds = 0;
};

struct fattr3 {
    ftype3 type = NF3NONE;
    uint32_t mode = 0;
    uint32_t nlink = 0;
    uint32_t uid = 0;
    uint32_t gid = 0;
    uint64_t size = 0;  // bytes
    uint64_t used = 0;  // bytes
    specdata3 rdev;
    uint64_t fsid = 0;
    uint64_t fileid = 0;
    nfstime3 atime;
    nfstime3 mtime;
    nfstime3 ctime;
};

struct wcc_attr {
    uint64_t size = 0;  // bytes
    nfstime3 mtime;
    nfstime3 ctime;
};

struct pre_op_attr {
    bool attributes_follow = false;
    wcc_attr attributes;
};

struct post_op_attr {
    bool attributes_follow = false;
    fattr3 attributes;
};

struct wcc_data {
    pre_op_attr before;
    post_op_attr after;
};

struct post_op_fh3 {
    bool handle_follows = false;
    nfs_fh3 handle;
};

struct set_uint32 {
    bool set_it = false;
    uint32_t value = 0;
};

struct set_uint64 {
    bool set_it = false;
    uint64_t value = 0;
};

struct set_time {
    time_how set_it = DONT_CHANGE;
    nfstime3 value;  // zero unless set_it is SET_TO_CLIENT_TIME
};

struct sattr3 {
    set_uint32 mode;
    set_uint32 uid;
    set_uint32 gid;
    set_uint64 size;
    set_time atime;
    set_time mtime;
};

struct sattrguard3 {
    bool check = false;
    nfstime3 obj_ctime;
};

struct createhow3 {
    createmode3 mode = UNCHECKED;
    sattr3 obj_attributes;  // UNCHECKED and GUARDED
    uint64_t verf = 0;      // EXCLUSIVE
};

// One record for all arms of the union; what the type does not carry is zero.
struct mknoddata3 {
    ftype3 type = NF3NONE;
    sattr3 dev_attributes;
    specdata3 dev_spec;
    sattr3 pipe_attributes;
};
