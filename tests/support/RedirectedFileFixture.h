// A redirected file with sources and an index in a folder that is exported, as its clients need it.
#pragma once

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "RedirectedFile.h"
#include "UtilitiesFixture.h"

constexpr long long MIB = 1LL << 20;
constexpr long long GIB = 1LL << 30;

class CRedirectedFileFixture : public CUtilitiesFixture {
protected:
    CRedirectedFileFixture() { EXPECT_EQ(Add(m_folder.Path(), "vm1"), ""); }
    ~CRedirectedFileFixture() override
    {
        m_pFile.reset();
        m_utilities.CloseAllRedirectedFiles(&m_param);
        m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu);
        EXPECT_EQ(CountDescriptors(), m_iDescriptors);
    }

    // The object's id is 7.
    void OpenInMemory(long long iSize)
    {
        m_pFile = std::make_unique<CRedirectedFile>(&m_utilities);
        m_pFile->Open(&m_param, iSize, 7, nullptr, 0, 0);
    }

    // The same with an empty index file. The sizes are in MiB; 0 leaves the default.
    void OpenWithIndex(long long iSize, int iSegmentSize = 0, int iCheckPointSize = 0)
    {
        m_folder.Write("index", "");
        OpenWithIndexAt(m_sIndex, iSize, iSegmentSize, iCheckPointSize);
    }
    void OpenWithIndexAt(const std::string& sIndex, long long iSize, int iSegmentSize = 0,
                         int iCheckPointSize = 0)
    {
        m_pFile = std::make_unique<CRedirectedFile>(&m_utilities);
        m_pFile->Open(&m_param, iSize, 7, sIndex.c_str(), iSegmentSize, iCheckPointSize);
    }

    // An empty path is no source.
    bool AddSegment(const std::string& sSource, long long iSourceOffset, long long iOffset,
                    long long iLength)
    {
        return m_pFile->AddSegment(&m_param, sSource.c_str(), iSourceOffset, iOffset, iLength,
                                   nullptr);
    }

    // What a read yields, zeros shown as dots, with "+" behind it at the end of the file; or a
    // negative result likewise. Looks that nothing is written behind the bytes asked for.
    static std::string ReadFrom(CRedirectedFile* pFile, CRuntimeParam* pParam, long long iOffset,
                                unsigned int iLength)
    {
        constexpr size_t GUARD = 16;
        std::string sBuffer(iLength + GUARD, '\xA5');
        bool bEof = false;
        const int iRead = pFile->Read(pParam, iOffset, sBuffer.data(), iLength, &bEof);
        EXPECT_EQ(sBuffer.substr(iLength), std::string(GUARD, '\xA5'));
        EXPECT_LE(iRead, static_cast<int>(iLength));
        std::string sText =
            iRead < 0 ? std::to_string(iRead) : sBuffer.substr(0, static_cast<size_t>(iRead));
        std::replace(sText.begin(), sText.end(), '\0', '.');
        return sText + (bEof ? "+" : "");
    }
    std::string Read(long long iOffset, unsigned int iLength)
    {
        return ReadFrom(m_pFile.get(), &m_param, iOffset, iLength);
    }

    // Segments as "source fox ox len": those of a walk from an offset, and those of an index file.
    static std::string GetText(const Segment& segment)
    {
        return std::to_string(segment.iSource) + " " + std::to_string(segment.iFileOffset) + " " +
               std::to_string(segment.iOffset) + " " + std::to_string(segment.iLength);
    }
    Lines Walk(long long iOffset = 0)
    {
        Lines vSegments;
        ProcSegment cursor;
        for (m_pFile->GetSegment(&m_param, iOffset, &cursor); cursor.index >= 0;
             m_pFile->GetNextSegment(&m_param, &cursor))
            vSegments.push_back(GetText(cursor.segment));
        return vSegments;
    }
    static Lines ReadRecords(const std::string& sIndex)
    {
        const std::string sBytes = ReadWholeFile(sIndex);
        EXPECT_EQ(sBytes.size() % sizeof(Segment), 0U);
        Lines vRecords;
        for (size_t i = 0; i + sizeof(Segment) <= sBytes.size(); i += sizeof(Segment)) {
            Segment segment;
            memcpy(&segment, sBytes.data() + i, sizeof(segment));
            EXPECT_EQ(segment.iPadding, 0);
            vRecords.push_back(GetText(segment));
        }
        return vRecords;
    }
    Lines Records() const { return ReadRecords(m_sIndex); }

    // Writes down from here on; only what is asked for.
    void SetBits(int iBits)
    {
        m_param.SetLogControl(iBits);
        m_recorder.Clear();
    }

    // The lines of one operation.
    static Lines MakeLines(const std::string& sOperation, const Lines& vTexts)
    {
        Lines vLines;
        for (const std::string& sText : vTexts)
            vLines.push_back("info|host|[" + sOperation + "] " + sText);
        return vLines;
    }

    const std::string m_sIndex = m_folder.Path("index");
    const std::string m_sLetters = m_folder.Write("letters", "abcdefghijklmnopqrstuvwxyz");
    const std::string m_sDigits = m_folder.Write("digits", "0123456789");
    const std::string m_sMissing = m_folder.Path("missing");
    std::unique_ptr<CRedirectedFile> m_pFile;
    const size_t m_iDescriptors = CountDescriptors();
};
