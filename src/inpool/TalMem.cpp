#include "inpool/TalMem.h"

#include <new>

#include "common/TalLog.h"
#include "inpool/TalMemImpl.h"

// Site numbers of "%s(%d)" in this file are 4xx.

namespace qv {

TalMem::~TalMem()
{
    delete mMemImpl;
    mMemImpl = nullptr;
}

int TalMem::TalMemInit()
{
    if (mMemImpl == nullptr) {
        mMemImpl = new (std::nothrow) TalMemImpl();
    }
    if (mMemImpl == nullptr) {
        TAL_LOGE("QvCamMem %s memImpl new fail\n", __func__);
        return -5;
    }
    return mMemImpl->TalMemImplInit();
}

// The two failures every forwarding operation shares: no allocator object,
// and a required argument that is 0. Each is logged here.
TalMem::Gate TalMem::Check(const char* func, int site, bool argsOk) const
{
    if (mMemImpl == nullptr) {
        TAL_LOGE("QvCamMem %s memImpl invalid\n", func);
        return Gate::kNoObject;
    }
    if (!argsOk) {
        TAL_LOGE("%s(%d): poolAddr input error\n", func, site);
        return Gate::kBadArgument;
    }
    return Gate::kPass;
}

int TalMem::Init(uintptr_t poolAddr, uint32_t size)
{
    Gate gate = Check(__func__, 401, poolAddr != 0);
    if (gate == Gate::kNoObject) {
        return -5;
    }
    int ret = gate == Gate::kPass ? mMemImpl->TalMemInit(poolAddr, size) : -1;
    if (ret != 0) {
        TAL_LOGE("QvCamMem %s ErrorCode:%d\n", __func__, ret);
    }
    return ret;
}

uintptr_t TalMem::Alloc(uintptr_t poolAddr, uint32_t size)
{
    if (Check(__func__, 402, poolAddr != 0) != Gate::kPass) {
        return 0;
    }
    return mMemImpl->TalMemAlloc(poolAddr, size);
}

int TalMem::Free(uintptr_t poolAddr, uintptr_t address)
{
    Gate gate = Check(__func__, 403, poolAddr != 0);
    if (gate == Gate::kNoObject) {
        return -5;
    }
    int ret = gate == Gate::kPass ? mMemImpl->TalMemFree(poolAddr, address) : -1;
    if (ret != 0) {
        // The address is printed in decimal behind "0x", as the log readers expect.
        TAL_LOGE("QvCamMem %s ErrorCode:%d addr 0x%u\n", __func__, ret,
                 static_cast<unsigned int>(TalMaskAddr(address)));
    }
    return ret;
}

int TalMem::DumpInfo(uintptr_t poolAddr)
{
    Gate gate = Check(__func__, 404, poolAddr != 0);
    if (gate == Gate::kNoObject) {
        return -5;
    }
    int ret = gate == Gate::kPass ? mMemImpl->TalMemDumpInfo(poolAddr) : -1;
    if (ret != 0) {
        TAL_LOGE("QvCamMem %s ErrorCode:%d\n", __func__, ret);
    }
    return ret;
}

int TalMem::SetMcInfo(uintptr_t address, void* record, const char* algoName, const char* moduleName)
{
    Gate gate = Check(__func__, 405, address != 0 && record != nullptr);
    if (gate == Gate::kNoObject) {
        return -5;
    }
    int ret = gate == Gate::kPass ? mMemImpl->TalMemSetMcInfo(address, record, algoName, moduleName)
                                  : -1;
    if (ret != 0) {
        TAL_LOGE("QvCamMem %s ErrorCode:%d\n", __func__, ret);
    }
    return ret;
}

void* TalMem::GetMcInfo(uintptr_t poolAddr, uintptr_t address)
{
    if (mMemImpl == nullptr) {
        TAL_LOGE("QvCamMem %s memImpl invalid\n", __func__);
        return nullptr;
    }
    if (poolAddr == 0 || address == 0) {
        TAL_LOGE("%s(%d):  input error\n", __func__, 406);
        return nullptr;
    }
    return mMemImpl->TalMemGetMcInfo(poolAddr, address);
}

int TalMem::GetUsedNum(uintptr_t poolAddr)
{
    Gate gate = Check(__func__, 407, poolAddr != 0);
    if (gate != Gate::kPass) {
        return gate == Gate::kNoObject ? -5 : -1;
    }
    return mMemImpl->TalMemGetUsedNum(poolAddr);
}

uint32_t TalMem::GetMaxFreeSize(uintptr_t poolAddr)
{
    if (Check(__func__, 408, poolAddr != 0) != Gate::kPass) {
        return 0;
    }
    return mMemImpl->TalMemGetMaxFreeSize(poolAddr);
}

void TalMem::CheckFatalAddr(uintptr_t poolAddr)
{
    if (Check(__func__, 409, poolAddr != 0) == Gate::kPass) {
        mMemImpl->TalMemCheckFatalAddr(poolAddr);
    }
}

} // namespace qv
