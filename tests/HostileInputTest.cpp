// What no client sends: calls cut short, calls with nonsense in them, noise, and clients that
// vanish. The server answers or stays silent, and goes on serving everybody else.
#include <algorithm>
#include <iostream>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "ServerFixture.h"

namespace {

constexpr uint32_t NASTY_WORDS[] = {0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
constexpr size_t FILE_SIZE = 200000;
constexpr uint32_t READ_SIZE = 65536;
constexpr unsigned int SEED = 20240607;
constexpr int NOISE_ROUNDS = 2000;  // on each port
constexpr uint32_t NULL_XID = 0x0FF0;

struct NamedCall {
    const char* pcName;
    int iPort;
    RpcCall call;
};

// Everything that came back must be replies, whole and each with a state that the server knows.
void ExpectReplies(const std::string& sBytes)
{
    size_t iPosition = 0;
    while (iPosition < sBytes.size()) {
        ASSERT_LE(iPosition + 28, sBytes.size());
        const uint32_t iMark = GetWord(sBytes, iPosition);
        const size_t iLength = iMark & ~RECORD_MARK_LAST;
        ASSERT_EQ(iMark & RECORD_MARK_LAST, RECORD_MARK_LAST);
        ASSERT_GE(iLength, 24U);
        ASSERT_LE(iPosition + 4 + iLength, sBytes.size());
        const CReply reply(sBytes.substr(iPosition + 4, iLength));
        EXPECT_EQ(reply.Msg(), WIRE_REPLY);
        EXPECT_EQ(reply.ReplyState(), WIRE_ACCEPTED);
        EXPECT_LE(reply.Accept(), static_cast<uint32_t>(ACCEPT_GARBAGE_ARGS));
        EXPECT_NE(reply.Accept(), static_cast<uint32_t>(ACCEPT_PROG_MISMATCH));
        iPosition += 4 + iLength;
    }
}

// A loopback address for the next client. The port of a connection that ended is taken for a minute
// more, and one address has too few of them for all that comes here.
std::string NextAddress()
{
    static unsigned int iNext = 0;
    return "127.0.0." + std::to_string(2 + iNext++ % 8);
}

// All that the server answers to these bytes before it sees that the client is done.
std::string Exchange(int iPort, const std::string& sBytes)
{
    CTcpClient client(iPort, NextAddress().c_str());
    client.Send(sBytes);
    client.ShutDownSending();
    std::string sReceived;
    while (!client.WasClosed()) {
        const std::string sPart = client.ReceiveRaw(1 << 16);
        sReceived += sPart;
        if (sPart.empty() && !client.WasClosed()) {
            ADD_FAILURE() << "The server neither answers nor closes";
            break;
        }
    }
    return sReceived;
}

class HostileInputTest : public CServerFixture {
protected:
    void SetUp() override
    {
        // All lines are formatted, and nobody keeps them.
        Start(LOG_EVERYTHING, false);
        m_pMain->SetCallback(&m_Deaf);
        m_Folder.Write("file", std::string(FILE_SIZE, 'x'));
        m_sDirectory = Mount("vm1");
        Unmount("vm1");
        m_sFile = Lookup(m_sDirectory, "file");
        AddNfsCalls();
        AddMountCalls();
        AddPortmapCalls();
        for (const NamedCall& named : m_vCalls)
            ASSERT_TRUE(CallOnce(named.iPort, named.call).IsReceived()) << named.pcName;
        m_pNfs.reset();
    }

    void Add(const char* pcName, int iPort, uint32_t iProg, uint32_t iProc, const CXdr& arguments)
    {
        RpcCall call;
        call.iProg = iProg;
        call.iVers = iProg == WIRE_PORTMAP_PROG ? 2 : 3;
        call.iProc = iProc;
        call.sArguments = arguments.Bytes();
        m_vCalls.push_back({pcName, iPort, call});
    }

    void AddNfs(const char* pcName, uint32_t iProc, const CXdr& arguments)
    {
        Add(pcName, WIRE_NFS_PORT, WIRE_NFS_PROG, iProc, arguments);
    }

    void AddNfsCalls()
    {
        AddNfs("NULL", 0, CXdr());
        AddNfs("GETATTR", 1, CXdr().Opaque(m_sFile));
        // Mode, no owner, no group, size, both times, guarded.
        AddNfs("SETATTR", 2,
               CXdr()
                   .Opaque(m_sFile)
                   .Bool(true)
                   .Word(0644)
                   .Bool(false)
                   .Bool(false)
                   .Bool(true)
                   .Hyper(FILE_SIZE)
                   .Word(2)
                   .Word(5)
                   .Word(6)
                   .Word(1)
                   .Bool(true)
                   .Word(0)
                   .Word(0));
        AddNfs("LOOKUP", 3, CXdr().Opaque(m_sDirectory).String("file"));
        AddNfs("ACCESS", 4, CXdr().Opaque(m_sFile).Word(0x3F));
        AddNfs("READLINK", 5, CXdr().Opaque(m_sFile));
        AddNfs("READ", 6, CXdr().Opaque(m_sFile).Hyper(0).Word(64));
        AddNfs("WRITE", 7, CXdr().Opaque(m_sFile).Hyper(8).Word(11).Word(2).Opaque("hello world"));
        AddNamespaceCalls();
        AddNfs("READDIR", 16, CXdr().Opaque(m_sDirectory).Hyper(0).Hyper(7).Word(512));
        AddNfs("READDIRPLUS", 17,
               CXdr().Opaque(m_sDirectory).Hyper(0).Hyper(7).Word(512).Word(8192));
        AddNfs("FSSTAT", 18, CXdr().Opaque(m_sDirectory));
        AddNfs("FSINFO", 19, CXdr().Opaque(m_sDirectory));
        AddNfs("PATHCONF", 20, CXdr().Opaque(m_sDirectory));
        AddNfs("COMMIT", 21, CXdr().Opaque(m_sFile).Hyper(0).Word(0));
    }

    void AddNamespaceCalls()
    {
        const CXdr attributes = CXdr().Word(1).Word(0700).Word(0).Word(0).Word(0).Word(0).Word(0);
        const auto In = [this](const char* pcName) {
            return CXdr().Opaque(m_sDirectory).String(pcName);
        };
        AddNfs("CREATE", 8, In("made").Word(0).Raw(attributes.Bytes()));
        AddNfs("MKDIR", 9, In("folder").Raw(attributes.Bytes()));
        AddNfs("SYMLINK", 10, In("link").Raw(attributes.Bytes()).String("text"));
        AddNfs("MKNOD", 11, In("device").Word(3).Raw(attributes.Bytes()).Word(4).Word(5));
        AddNfs("REMOVE", 12, In("made"));
        AddNfs("RMDIR", 13, In("folder"));
        AddNfs("RENAME", 14, In("missing").Raw(In("moved").Bytes()));
        AddNfs("LINK", 15, CXdr().Opaque(m_sFile).Raw(In("link").Bytes()));
    }

    void AddMountCalls()
    {
        const std::pair<const char*, uint32_t> calls[] = {{"MNT", 1}, {"UMNT", 3}};
        for (const auto& [pcName, iProc] : calls)
            Add(pcName, WIRE_MOUNT_PORT, WIRE_MOUNT_PROG, iProc, CXdr().String("vm1"));
        Add("MOUNT NULL", WIRE_MOUNT_PORT, WIRE_MOUNT_PROG, 0, CXdr());
        Add("EXPORT", WIRE_MOUNT_PORT, WIRE_MOUNT_PROG, 5, CXdr());
    }

    void AddPortmapCalls()
    {
        Add("PORTMAP NULL", WIRE_PORTMAP_PORT, WIRE_PORTMAP_PROG, 0, CXdr());
        Add("GETPORT", WIRE_PORTMAP_PORT, WIRE_PORTMAP_PROG, 3,
            CXdr().Word(WIRE_NFS_PROG).Word(3).Word(6).Word(0));
    }

    // Sends datagrams and then calls once more: the replies before that call's own must be replies.
    static void ExchangeDatagrams(const NamedCall& named,
                                  const std::vector<std::string>& vDatagrams)
    {
        CUdpClient client(named.iPort);
        RpcCall last = named.call;
        last.iProc = 0;
        last.sArguments.clear();
        last.iXid = NULL_XID;
        for (const std::string& sDatagram : vDatagrams) {
            ASSERT_TRUE(client.Send(sDatagram));
            ASSERT_TRUE(client.Send(last.Datagram()));
            CReply reply;
            do {
                reply = client.ReceiveReply();
                ASSERT_TRUE(reply.IsReceived());
                EXPECT_EQ(reply.Msg(), WIRE_REPLY);
                EXPECT_EQ(reply.ReplyState(), WIRE_ACCEPTED);
            } while (reply.Xid() != NULL_XID);
        }
    }

    RpcCall ReadCall(uint32_t iXid) const
    {
        RpcCall call = NfsCall(6, CXdr().Opaque(m_sFile).Hyper(0).Word(READ_SIZE).Bytes());
        call.iXid = iXid;
        return call;
    }

    // A host that takes every line and forgets it.
    class CDeafHost : public CLogRecorder {
    public:
        bool LogInfo(const char*, const char*) override { return true; }
        bool LogError(const char*, const char*) override { return true; }
        bool LogRaw(const char*, const char*) override { return true; }
    };

    CDeafHost m_Deaf;
    std::string m_sDirectory;  // handles
    std::string m_sFile;
    std::vector<NamedCall> m_vCalls;
};

// Noise, or a valid call with some of its bytes replaced, sometimes behind another one.
std::string MakeNoise(std::mt19937* pRandom, const std::vector<NamedCall>& vCalls, int iPort)
{
    std::string sBytes;
    if ((*pRandom)() % 2 == 0) {
        sBytes.resize((*pRandom)() % 4096 + 1);
        for (char& cByte : sBytes)
            cByte = static_cast<char>((*pRandom)());
        return sBytes;
    }
    for (size_t iCalls = (*pRandom)() % 3 + 1; iCalls > 0; iCalls--) {
        const NamedCall& named = vCalls[(*pRandom)() % vCalls.size()];
        if (named.iPort == iPort)
            sBytes += named.call.Record();
    }
    for (size_t iChanges = (*pRandom)() % 6; iChanges > 0 && !sBytes.empty(); iChanges--)
        sBytes[(*pRandom)() % sBytes.size()] = static_cast<char>((*pRandom)());
    return sBytes;
}

}  // namespace

TEST_F(HostileInputTest, EveryCallCutAtEveryByte_Tcp_IsNotAnswered)
{
    for (const NamedCall& named : m_vCalls) {
        const std::string sRecord = named.call.Record();
        for (size_t iCut = 0; iCut < sRecord.size(); iCut++)
            ASSERT_EQ(Exchange(named.iPort, sRecord.substr(0, iCut)), "")
                << named.pcName << " cut at " << iCut;
    }
    EXPECT_TRUE(IsServing());
}

TEST_F(HostileInputTest, EveryCallWithACredentialCutAtEveryByte_Tcp_IsNotAnswered)
{
    for (const NamedCall& named : m_vCalls) {
        RpcCall call = named.call;
        call.iCredentialFlavor = AUTH_SYS;
        call.sCredential = AuthSysBody("client", 0, 0);
        const std::string sRecord = call.Record();
        for (size_t iCut = 0; iCut < sRecord.size(); iCut++)
            ASSERT_EQ(Exchange(named.iPort, sRecord.substr(0, iCut)), "")
                << named.pcName << " cut at " << iCut;
    }
    EXPECT_TRUE(IsServing());
}

TEST_F(HostileInputTest, EveryCallCutAtEveryByte_Udp_IsNotAnswered)
{
    for (const NamedCall& named : m_vCalls) {
        const std::string sDatagram = named.call.Datagram();
        CUdpClient client(named.iPort);
        for (size_t iCut = 0; iCut < sDatagram.size(); iCut++) {
            ASSERT_TRUE(client.Send(sDatagram.substr(0, iCut)));
            ASSERT_TRUE(client.IsOtherwiseSilent(named.call.iProg, named.call.iVers))
                << named.pcName << " cut at " << iCut;
        }
    }
    EXPECT_TRUE(IsServing());
}

TEST_F(HostileInputTest, EveryWordReplaced_Tcp_LeavesTheServerServing)
{
    for (const NamedCall& named : m_vCalls) {
        const std::string sRecord = named.call.Record();
        for (size_t iWord = 0; iWord < sRecord.size(); iWord += 4) {
            for (const uint32_t iValue : NASTY_WORDS) {
                std::string sChanged = sRecord;
                PutWord(&sChanged, iWord, iValue);
                ExpectReplies(Exchange(named.iPort, sChanged));
            }
            ASSERT_FALSE(HasFailure()) << named.pcName << " word at " << iWord;
        }
    }
    EXPECT_TRUE(IsServing());
}

TEST_F(HostileInputTest, EveryWordReplaced_Udp_LeavesTheServerServing)
{
    for (const NamedCall& named : m_vCalls) {
        const std::string sDatagram = named.call.Datagram();
        std::vector<std::string> vDatagrams;
        for (size_t iWord = 0; iWord < sDatagram.size(); iWord += 4) {
            for (const uint32_t iValue : NASTY_WORDS) {
                std::string sChanged = sDatagram;
                PutWord(&sChanged, iWord, iValue);
                vDatagrams.push_back(sChanged);
            }
        }
        ExchangeDatagrams(named, vDatagrams);
        ASSERT_FALSE(HasFailure()) << named.pcName;
    }
    EXPECT_TRUE(IsServing());
}

TEST_F(HostileInputTest, Noise_Tcp_LeavesTheServerServing)
{
    std::cout << "seed " << SEED << std::endl;
    std::mt19937 random(SEED);
    for (const int iPort : {WIRE_NFS_PORT, WIRE_MOUNT_PORT, WIRE_PORTMAP_PORT}) {
        for (int iRound = 0; iRound < NOISE_ROUNDS; iRound++) {
            ExpectReplies(Exchange(iPort, MakeNoise(&random, m_vCalls, iPort)));
            ASSERT_FALSE(HasFailure()) << "port " << iPort << " round " << iRound;
        }
        EXPECT_TRUE(IsServing());
    }
}

TEST_F(HostileInputTest, Noise_Udp_LeavesTheServerServing)
{
    std::cout << "seed " << SEED << std::endl;
    std::mt19937 random(SEED);
    for (const int iPort : {WIRE_NFS_PORT, WIRE_MOUNT_PORT, WIRE_PORTMAP_PORT}) {
        const auto it = std::find_if(m_vCalls.begin(), m_vCalls.end(),
                                     [iPort](const auto& named) { return named.iPort == iPort; });
        std::vector<std::string> vDatagrams;
        for (int iRound = 0; iRound < NOISE_ROUNDS; iRound++)
            vDatagrams.push_back(MakeNoise(&random, m_vCalls, iPort));
        ExchangeDatagrams(*it, vDatagrams);
        ASSERT_FALSE(HasFailure()) << "port " << iPort;
        EXPECT_TRUE(IsServing());
    }
}

TEST_F(HostileInputTest, ClientThatVanishesInTheMiddleOfARecord_IsForgotten)
{
    for (const NamedCall& named : m_vCalls) {
        const std::string sRecord = named.call.Record();
        for (const size_t iCut : {size_t{1}, size_t{4}, sRecord.size() / 2, sRecord.size() - 1}) {
            CTcpClient client(named.iPort);
            client.Send(sRecord.substr(0, iCut));
            client.Abort();
            ASSERT_TRUE(CallOnce(named.iPort, named.call).IsReceived()) << named.pcName;
        }
    }
    EXPECT_TRUE(IsServing());
}

TEST_F(HostileInputTest, ClientThatVanishesInTheMiddleOfAReply_IsForgotten)
{
    // More of them than the server has places.
    for (int iRound = 0; iRound < 15; iRound++) {
        CTcpClient greedy(WIRE_NFS_PORT);
        std::string sCalls;
        for (uint32_t iXid = 0; iXid < 200; iXid++)  // 13 MB of replies
            sCalls += ReadCall(iXid).Record();
        greedy.Send(sCalls);
        EXPECT_EQ(greedy.ReceiveRaw(100).size(), 100U);  // the server is at it

        CReply reply = CallOnce(WIRE_NFS_PORT, ReadCall(4711));
        ASSERT_TRUE(reply.IsSuccess(4711)) << iRound;
        EXPECT_EQ(reply.Word(), 0U);
        if (iRound % 2 == 0)
            greedy.Abort();
    }
    EXPECT_TRUE(IsServing());
}

TEST_F(HostileInputTest, ClientsThatNeverRead_LeaveTheOtherPlacesServing)
{
    std::vector<CTcpClient> vGreedy;
    std::string sCalls;
    for (uint32_t iXid = 0; iXid < 200; iXid++)
        sCalls += ReadCall(iXid).Record();
    for (int i = 0; i < 9; i++) {  // all places but one
        vGreedy.emplace_back(WIRE_NFS_PORT);
        ASSERT_TRUE(vGreedy.back().Send(sCalls));
        ASSERT_EQ(vGreedy.back().ReceiveRaw(100).size(), 100U);
    }
    for (uint32_t iXid = 1; iXid <= 20; iXid++) {
        CReply reply = CallOnce(WIRE_NFS_PORT, ReadCall(iXid));
        ASSERT_TRUE(reply.IsSuccess(iXid));
        EXPECT_EQ(reply.Word(), 0U);
        EXPECT_EQ(reply.Left(), 16 + size_t{READ_SIZE});
    }
    m_pMain->StopServer();  // nor do they hold up the end
    for (CTcpClient& greedy : vGreedy)
        greedy.Close();
}

TEST_F(HostileInputTest, AMebibyteOfNoise_EndsItsConnectionOnly)
{
    CTcpClient client(WIRE_NFS_PORT);
    client.Send(std::string(0x100000 + 1, '\x01'));
    EXPECT_TRUE(client.IsClosedByServer());
    EXPECT_TRUE(IsServing());
}

TEST_F(HostileInputTest, AMebibyteOfNoiseInSmallPieces_EndsItsConnectionAndHoldsUpNobody)
{
    for (const int iLogControl : {0, LOG_EVERYTHING}) {
        m_pMain->SetLogControl(iLogControl);
        const size_t iPiece = iLogControl == 0 ? 64 : 16384;
        CTcpClient noisy(WIRE_NFS_PORT);
        CTcpClient neighbour(WIRE_NFS_PORT);
        for (size_t iSent = 0; iSent <= 0x100000; iSent += iPiece) {
            noisy.Send(std::string(iPiece, '\x01'));  // may fail once the server has enough
            if (iSent % 0x10000 == 0) {
                ASSERT_TRUE(neighbour.Call(NfsCall(0, "")).IsSuccess(1)) << iSent;
                ASSERT_TRUE(IsServing()) << iSent;
            }
        }
        EXPECT_TRUE(noisy.IsClosedByServer());
        EXPECT_TRUE(neighbour.Call(NfsCall(0, "")).IsSuccess(1));
        EXPECT_TRUE(IsServing());
    }
}
