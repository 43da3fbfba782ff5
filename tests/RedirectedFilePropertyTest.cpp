// Random lists of segments, read at random places, against a model that is slow and obvious.
// STAGENFS_SEED repeats a run: it is the seed that a failure shows.
#include "RedirectedFile.h"

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <random>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "RedirectedFileFixture.h"

namespace {

constexpr int64_t RECORD = sizeof(Segment);
constexpr int64_t SOURCE_SIZE = 3 * MIB;

// What a list of segments yields, worked out one step after the other. It asks the file system for
// every byte, and it remembers the index file's bytes rather than reading them.
class CModel {
public:
    CModel(int64_t iSize, bool bIndex, int64_t iGranule, int64_t iCheckPoint)
        : m_iSize(iSize), m_bIndex(bIndex), m_iGranule(iGranule), m_iCheckPoint(iCheckPoint)
    {
    }

    bool Add(const std::string& sSource, int64_t iSourceOffset, int64_t iOffset, int64_t iLength)
    {
        Segment segment;
        segment.iSource = sSource.empty() ? -1 : GetSource(sSource);
        if (iOffset >= m_iSize)
            return false;
        segment.iFileOffset = iSourceOffset;
        segment.iOffset = iOffset;
        segment.iLength = std::min(iLength, m_iSize - iOffset);
        if (!m_bIndex) {
            m_vSegments.push_back(segment);
            return true;
        }
        const int64_t iBase = iOffset / m_iGranule * m_iGranule;
        int64_t iLeft = segment.iLength;
        if (iOffset > iBase && iLeft > m_iGranule + iBase - iOffset)
            iLeft -= AddRecord(&segment, m_iGranule + iBase - iOffset);
        while (iLeft > m_iGranule)
            iLeft -= AddRecord(&segment, m_iGranule);
        if (iLeft > 0)
            AddRecord(&segment, iLeft);
        return true;
    }

    // The public read; the bytes delivered go to *psBytes.
    int Read(int64_t iOffset, int iLength, std::string* psBytes, bool* pbEof)
    {
        const int iRead = Assemble(iOffset, iLength, psBytes);
        if (iRead >= 0)
            m_iPosition = iOffset + iRead;
        *pbEof = m_iPosition >= m_iSize;
        return *pbEof && iRead < 0 ? 0 : iRead;
    }

    std::string m_sIndex;  // the index file's bytes

private:
    struct Cursor {
        int64_t iIndex = -1;
        size_t iNext = 0;  // bytes into the index, or place in the list
        Segment segment;
    };

    int GetSource(const std::string& sSource)
    {
        for (size_t i = 0; i < m_vSources.size(); i++)
            if (m_vSources[i] == sSource)
                return static_cast<int>(i);
        m_vSources.push_back(sSource);
        return static_cast<int>(m_vSources.size()) - 1;
    }

    int64_t AddRecord(Segment* pSegment, int64_t iLength)
    {
        if (pSegment->iOffset > 0 && pSegment->iOffset % m_iCheckPoint == 0)
            m_vCheckPoints.push_back({static_cast<int64_t>(m_sIndex.size()), pSegment->iOffset});
        Segment record = *pSegment;
        record.iLength = iLength;
        m_sIndex.append(reinterpret_cast<const char*>(&record), sizeof(record));
        pSegment->iOffset += iLength;
        pSegment->iFileOffset += iLength;
        return iLength;
    }

    // What garbage in an index file leads to is no number any more: the nearest one.
    static int64_t Add(int64_t iFirst, int64_t iSecond)
    {
        int64_t iSum = 0;
        if (__builtin_add_overflow(iFirst, iSecond, &iSum))
            return iSecond < 0 ? std::numeric_limits<int64_t>::min()
                               : std::numeric_limits<int64_t>::max();
        return iSum;
    }
    static int64_t Subtract(int64_t iFirst, int64_t iSecond)
    {
        int64_t iDifference = 0;
        if (__builtin_sub_overflow(iFirst, iSecond, &iDifference))
            return iSecond < 0 ? std::numeric_limits<int64_t>::max()
                               : std::numeric_limits<int64_t>::min();
        return iDifference;
    }

    static bool Contains(const Segment& segment, int64_t iOffset)
    {
        return segment.iOffset <= iOffset && Subtract(iOffset, segment.iOffset) < segment.iLength;
    }

    bool ReadRecord(Cursor* pCursor) const
    {
        if (pCursor->iNext + sizeof(Segment) > m_sIndex.size())
            return false;
        memcpy(&pCursor->segment, m_sIndex.data() + pCursor->iNext, sizeof(Segment));
        pCursor->iNext += sizeof(Segment);
        return true;
    }

    int64_t GetStart(int64_t iOffset) const
    {
        if (iOffset >= m_iCheckPoint)
            for (size_t i = m_vCheckPoints.size(); i > 0; i--)
                if (m_vCheckPoints[i - 1].iOffset <= iOffset)
                    return m_vCheckPoints[i - 1].iFileOffset +
                           (iOffset - m_vCheckPoints[i - 1].iOffset) / m_iGranule * RECORD;
        return iOffset / m_iGranule * RECORD;
    }

    Cursor Get(int64_t iOffset) const
    {
        Cursor cursor;
        if (m_bIndex) {
            cursor.iNext = static_cast<size_t>(GetStart(iOffset));
            while (ReadRecord(&cursor)) {
                if (Contains(cursor.segment, iOffset)) {
                    cursor.iIndex = cursor.segment.iOffset;
                    break;
                }
            }
            return cursor;
        }
        for (size_t i = 0; i < m_vSegments.size(); i++) {
            if (Contains(m_vSegments[i], iOffset)) {
                cursor.iIndex = static_cast<int64_t>(i);
                cursor.segment = m_vSegments[i];
                break;
            }
        }
        return cursor;
    }

    void GetNext(Cursor* pCursor) const
    {
        if (pCursor->iIndex < 0)
            return;
        pCursor->iIndex++;
        if (m_bIndex) {
            if (!ReadRecord(pCursor))
                pCursor->iIndex = -1;
        } else if (pCursor->iIndex < static_cast<int64_t>(m_vSegments.size())) {
            pCursor->segment = m_vSegments[static_cast<size_t>(pCursor->iIndex)];
        } else {
            pCursor->iIndex = -1;
        }
    }

    // False where the read of the whole file ends.
    bool ReadSource(const Segment& segment, int64_t iInSegment, int64_t iLength,
                    std::string* psBytes) const
    {
        const int64_t iSeek = Add(segment.iFileOffset, iInSegment);
        if (iSeek < 0 || iLength < 0)
            return false;
        std::string sPiece(static_cast<size_t>(iLength), '\0');
        if (segment.iSource >= 0 && segment.iSource < static_cast<int>(m_vSources.size())) {
            const std::string& sSource = m_vSources[static_cast<size_t>(segment.iSource)];
            const CAutoFd file(open(sSource.c_str(), O_RDWR | O_CLOEXEC));
            if (file.Get() != -1 && pread(file.Get(), sPiece.data(), sPiece.size(), iSeek) < 0)
                return false;  // what it does not fill stays zero
        }
        *psBytes += sPiece;
        return true;
    }

    int Assemble(int64_t iOffset, int iLength, std::string* psBytes)
    {
        psBytes->clear();
        if (iOffset >= m_iSize)
            return -1;
        int64_t iCurrent = iOffset;
        int64_t iDelivered = 0;
        Cursor cursor = Get(iCurrent);
        while (cursor.iIndex >= 0) {
            const Segment segment = cursor.segment;
            if (segment.iOffset > iCurrent)
                iCurrent = segment.iOffset;  // the gap is not delivered
            const int64_t iInSegment = Subtract(iCurrent, segment.iOffset);
            const int64_t iRest = Subtract(segment.iLength, iInSegment);
            const int64_t iRoom = iLength - iDelivered;
            int64_t iChunk = iRoom;
            if (iRest <= iRoom) {
                iChunk = iRest;
                GetNext(&cursor);
            }
            if (!ReadSource(segment, iInSegment, iChunk, psBytes))
                return static_cast<int>(iDelivered);
            iCurrent += iChunk;
            iDelivered += iChunk;
            if (iDelivered >= iLength)
                return static_cast<int>(iDelivered);
        }
        if (m_iPosition < m_iSize) {
            const int64_t iRoom = iLength - iDelivered;
            const int64_t iTail = std::max<int64_t>(0, std::min(iRoom, m_iSize - iCurrent));
            psBytes->append(static_cast<size_t>(iTail), '\0');
            iDelivered += iTail;
        }
        return static_cast<int>(iDelivered);
    }

    int64_t m_iSize;
    bool m_bIndex;
    int64_t m_iGranule;
    int64_t m_iCheckPoint;
    int64_t m_iPosition = 0;
    std::vector<std::string> m_vSources;
    std::vector<Segment> m_vSegments;
    std::vector<CheckPointSegment> m_vCheckPoints;
};

uint64_t GetSeed()
{
    const char* pcSeed = getenv("STAGENFS_SEED");
    if (pcSeed != nullptr)
        return strtoull(pcSeed, nullptr, 10);
    return static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
}

class RedirectedFileProperty : public CRedirectedFileFixture {
protected:
    static constexpr int READS = 35'000;  // of each case; there are three

    RedirectedFileProperty()
    {
        std::string sBytes(SOURCE_SIZE, '\0');
        for (const char* pcName : {"a", "b", "shrinking"}) {
            for (size_t i = 0; i < sBytes.size(); i += sizeof(uint64_t)) {
                const uint64_t iWord = m_random();
                memcpy(&sBytes[i], &iWord, sizeof(iWord));
            }
            m_vSources.push_back(m_folder.Write(pcName, sBytes));
        }
        std::filesystem::create_directory(m_folder.Path("folder"));
        m_vSources.push_back(m_folder.Path("folder"));
        m_vSources.push_back(m_sMissing);
        m_vSources.push_back("");
    }

    int64_t Pick(int64_t iLimit)  // below the limit
    {
        return static_cast<int64_t>(m_random() % static_cast<uint64_t>(iLimit));
    }
    bool Chance(int64_t iPercent) { return Pick(100) < iPercent; }
    int64_t PickOf(const std::vector<int64_t>& vValues)
    {
        return vValues[static_cast<size_t>(Pick(static_cast<int64_t>(vValues.size())))];
    }

    // Opens an empty file of a random size, and the model beside it.
    void OpenRandomly(bool bIndex)
    {
        const int64_t iGranule = PickOf({0, -1, 1, 1, 1, 2, 3, 5});
        const int64_t iCheckPoint = PickOf({0, -1, 1, 2, 3, 4, 7, 16});
        m_iGranule = iGranule > 0 ? iGranule * MIB : 32 * MIB;
        m_iUnit = bIndex || Chance(50) ? m_iGranule : 100;
        m_iSize = PickOf({0, -5, 1 + Pick(2000), 1 + Pick(2000), Pick(40) * m_iUnit + Pick(200),
                          (1 + Pick(40)) * m_iUnit, 4096 * GIB - Pick(3)});
        if (m_iSize <= 0 && Chance(80))
            m_iSize = 10 * m_iUnit;
        m_bIndex = bIndex;
        m_sStory.str("");
        m_sStory << "size " << m_iSize << ", granule " << m_iGranule << ", check point "
                 << iCheckPoint << " MiB\n";
        if (bIndex)
            OpenWithIndex(m_iSize, static_cast<int>(iGranule), static_cast<int>(iCheckPoint));
        else
            OpenInMemory(m_iSize);
        m_pModel = std::make_unique<CModel>(m_iSize, bIndex, m_iGranule,
                                            iCheckPoint > 0 ? iCheckPoint * MIB : GIB);
        m_vPlaces = {0, m_iSize, m_iUnit};
        m_iEnd = 0;
        m_iStyle = Pick(4);
    }

    // Near where something starts or ends.
    int64_t PickPlace()
    {
        switch (Pick(4)) {
        case 0:
            return Pick(50) * m_iUnit + PickOf({0, 0, 0, -1, 1, Pick(100)});
        case 1:
            return m_iSize > 0 ? Pick(m_iSize) : 0;
        default:
            return PickOf(m_vPlaces) + PickOf({0, 0, 0, -1, 1, Pick(100), -Pick(100)});
        }
    }

    int64_t PickLength(int64_t iOffset)
    {
        const int64_t iKind = Pick(100);
        if (iKind < 60)
            return 1 + Pick(64);
        if (iKind < 85)
            return Pick(4) * m_iUnit + PickOf({0, 0, 1, -1, Pick(m_iUnit)});
        if (iKind < 90)
            return 0;
        if (iKind < 93)
            return -Pick(1000);
        // so long that only the file's size ends it, where that does not take too many records
        const bool bFewRecords = !m_bIndex || (m_iSize - iOffset) / m_iGranule < 60;
        return bFewRecords ? std::numeric_limits<int64_t>::max() - Pick(2) : 3 * m_iUnit;
    }

    void AddRandomly()
    {
        int64_t iOffset = m_iEnd;
        if (m_iStyle == 1)
            iOffset += PickOf({0, 1, Pick(100), m_iUnit, 3 * m_iUnit});
        if (m_iStyle == 2)
            iOffset -= PickOf({0, 0, 1, Pick(100)});
        if (m_iStyle == 3 || Chance(5))
            iOffset = PickPlace();
        const int64_t iLength = PickLength(iOffset);
        const std::string& sSource = m_vSources[static_cast<size_t>(
            std::min<int64_t>(Pick(10) / 2 + (Chance(5) ? 3 : 0), 5))];
        const int64_t iSourceOffset =
            PickOf({0, Pick(SOURCE_SIZE), Pick(SOURCE_SIZE), SOURCE_SIZE - Pick(100),
                    SOURCE_SIZE + Pick(2 * SOURCE_SIZE), Chance(20) ? -Pick(100) : Pick(100)});
        m_sStory << "add '" << sSource << "' fox " << iSourceOffset << " ox " << iOffset << " len "
                 << iLength << "\n";
        ASSERT_EQ(AddSegment(sSource, iSourceOffset, iOffset, iLength),
                  m_pModel->Add(sSource, iSourceOffset, iOffset, iLength))
            << m_sStory.str() << "STAGENFS_SEED=" << m_iSeed;
        if (iLength > 0 && iOffset < m_iSize) {
            m_iEnd = iOffset + std::min(iLength, m_iSize - iOffset);
            m_vPlaces.push_back(iOffset);
            m_vPlaces.push_back(m_iEnd);
        }
    }

    // More records than are read in one piece.
    void AddMany()
    {
        const int64_t iCount = 1500 + Pick(1500);
        m_sStory << iCount << " times 7 bytes\n";
        for (int64_t i = 0; i < iCount && m_iEnd + 7 < m_iSize; i++, m_iEnd += 7)
            ASSERT_EQ(AddSegment(m_vSources[0], i * 9, m_iEnd, 7),
                      m_pModel->Add(m_vSources[0], i * 9, m_iEnd, 7))
                << "STAGENFS_SEED=" << m_iSeed;
        m_vPlaces.push_back(m_iEnd);
        m_vPlaces.push_back(m_iEnd - Pick(7 * iCount));
    }

    void ChangeSource()
    {
        const int64_t iSize = Pick(SOURCE_SIZE);
        m_sStory << "cut '" << m_vSources[2] << "' to " << iSize << "\n";
        std::filesystem::resize_file(m_vSources[2], static_cast<uintmax_t>(iSize));
    }

    void ReadRandomly()
    {
        const int64_t iOffset = std::max<int64_t>(0, PickPlace());
        const int iLength =
            static_cast<int>(Chance(98) ? Pick(300) : PickOf({0, 5000, 65536, 2 * MIB}));
        std::string sExpected;
        bool bExpectedEof = false;
        const int iExpected = m_pModel->Read(iOffset, iLength, &sExpected, &bExpectedEof);

        std::string sBytes(static_cast<size_t>(iLength) + 1, '\xA5');
        bool bEof = false;
        const int iRead = m_pFile->Read(&m_param, iOffset, sBytes.data(),
                                        static_cast<unsigned int>(iLength), &bEof);
        m_iReads++;
        const bool bGuarded = sBytes.back() == '\xA5';
        sBytes.resize(static_cast<size_t>(std::max(0, iRead)));
        if (iRead == iExpected && bEof == bExpectedEof && sBytes == sExpected && bGuarded) {
            m_sStory << "read " << iLength << " at " << iOffset << "\n";
            return;
        }
        size_t iFirst = 0;
        while (iFirst < sBytes.size() && sBytes[iFirst] == sExpected[iFirst])
            iFirst++;
        FAIL() << m_sStory.str() << "read " << iLength << " at " << iOffset << ": " << iRead
               << (bEof ? "+" : "") << " instead of " << iExpected << (bExpectedEof ? "+" : "")
               << ", other bytes from " << iFirst << " on, guard " << bGuarded
               << ". STAGENFS_SEED=" << m_iSeed;
    }

    // What nobody but the server should do to an index file: changes, cuts and adds to it.
    void ChangeIndex()
    {
        std::string& sIndex = m_pModel->m_sIndex;
        const int64_t iRecords = static_cast<int64_t>(sIndex.size()) / RECORD;
        const int64_t iKind = Pick(4);
        m_sStory << "change the index " << iKind << "\n";
        if (iKind == 0)
            sIndex.resize(static_cast<size_t>(Pick(static_cast<int64_t>(sIndex.size()) + 1)));
        else if (iKind == 1)
            sIndex.append(static_cast<size_t>(Pick(70)), static_cast<char>(Pick(256) - 128));
        else if (iRecords > 0)
            ChangeRecord(&sIndex, Pick(iRecords) * RECORD);
        const CAutoFd file(open(m_sIndex.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
        ASSERT_EQ(write(file.Get(), sIndex.data(), sIndex.size()),
                  static_cast<ssize_t>(sIndex.size()));
        const struct timespec times[2] = {{0, UTIME_OMIT}, {++m_iChangeTime, 0}};
        ASSERT_EQ(futimens(file.Get(), times), 0);  // within one tick of the clock, too
    }

    void ChangeRecord(std::string* psIndex, int64_t iPosition)
    {
        Segment segment;
        segment.iSource = static_cast<int32_t>(Pick(8)) - 2;
        segment.iFileOffset = Pick(2 * SOURCE_SIZE) - 100;
        segment.iOffset = PickPlace();
        segment.iLength = PickOf({Pick(100), Pick(10 * m_iUnit), -Pick(100), 1LL << 50});
        psIndex->replace(static_cast<size_t>(iPosition), sizeof(segment),
                         reinterpret_cast<const char*>(&segment), sizeof(segment));
    }

    // Lists, one after the other, until there were reads enough.
    void Run(bool bIndex, bool bChangeIndex)
    {
        while (m_iReads < READS && !HasFailure()) {
            OpenRandomly(bIndex);
            const int64_t iManyStep = Chance(3) ? Pick(60) : -1;
            const int64_t iSteps = 20 + Pick(200);
            for (int64_t i = 0; i < iSteps && !HasFatalFailure(); i++) {
                if (i == iManyStep)
                    AddMany();
                else if (bChangeIndex && Chance(5))
                    ChangeIndex();
                else if (i < 5 || Chance(15))
                    AddRandomly();
                else if (Chance(1))
                    ChangeSource();
                else
                    ReadRandomly();
            }
            if (bIndex) {
                ASSERT_EQ(ReadWholeFile(m_sIndex) == m_pModel->m_sIndex, true)
                    << m_sStory.str() << "other bytes in the index. STAGENFS_SEED=" << m_iSeed;
            }
        }
    }

    const uint64_t m_iSeed = GetSeed();
    std::mt19937_64 m_random{m_iSeed};
    std::vector<std::string> m_vSources;
    std::unique_ptr<CModel> m_pModel;
    std::ostringstream m_sStory;  // of the list in hand
    bool m_bIndex = false;
    int64_t m_iGranule = 0;
    int64_t m_iUnit = 0;  // what sizes are multiples of
    int64_t m_iSize = 0;
    int64_t m_iEnd = 0;    // of the segment added last
    int64_t m_iStyle = 0;  // in order, with gaps, overlapping, anywhere
    std::vector<int64_t> m_vPlaces;
    int m_iReads = 0;
    time_t m_iChangeTime = 1'000'000'000;
};

}  // namespace

TEST_F(RedirectedFileProperty, InMemory_ReadsAsTheModel)
{
    Run(false, false);
}

TEST_F(RedirectedFileProperty, WithIndex_ReadsAsTheModelAndWritesTheSameRecords)
{
    Run(true, false);
}

TEST_F(RedirectedFileProperty, WithIndexThatOthersChange_ReadsAsTheModel)
{
    Run(true, true);
}
