#include "DataException.h"

#include <cstdio>

CDataTruncatedExpt::CDataTruncatedExpt(unsigned int iRequested, unsigned int iAvailable)
    : std::runtime_error("")
{
    snprintf(m_cMessage, sizeof(m_cMessage), "Data is truncated.Missing %u data",
             iRequested - iAvailable);
}
