// Dumps and debug properties: the three print switches, GetMemDumpInfo and
// the printers of the report lists.

#include "monitor/TalMemPoolMonitor.h"

#include "common/TalLog.h"
#include "securec.h"
#include "talmem_properties.h"

namespace qv {

namespace {
struct PropertySwitch {
    const char* key;
    bool TalMemPoolMonitor::*flag;
    const char* name; // the switch's name as its "enabled" line shows it
};
} // namespace

void TalMemPoolMonitor::ReadProperties()
{
    const PropertySwitch switches[] = {
        {"persist.vendor.talmem.prt.rtalgoinfo", &TalMemPoolMonitor::printRealtimeAlgoInfo,
         "printRealtimeAlgoInfo"},
        {"persist.vendor.talmem.prt.rtpoolstatus", &TalMemPoolMonitor::printRealtimePoolStatus,
         "printRealtimePoolStatus"},
        {"persist.vendor.talmem.prt.pksizemclist", &TalMemPoolMonitor::printPeakSizeMemChunkList,
         "printPeakSizeMemChunkList"},
    };
    for (const PropertySwitch& sw : switches) {
        char value[PROPERTY_VALUE_MAX];
        (void)memset_s(value, sizeof(value), 0, sizeof(value));
        (void)property_get(sw.key, value, "0");
        if (value[0] == '1') {
            this->*sw.flag = true;
            TAL_LOGD("QvCamMem %s %s enabled\n", __func__, sw.name);
        }
    }
}

} // namespace qv
