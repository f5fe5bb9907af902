#include "inpool/TalMem.h"

#include <new>

#include "inpool/TalMemImpl.h"
#include "common/TalLog.h"

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
// and a required argument that is 0. Each is logged here, in the name of `func`.
TalMem::Gate TalMem::Check(const char* func, int site, bool argsOk) const
{
    if (mMemImpl == nullptr) {
        TAL_LOGE_FOR(func, "QvCamMem %s memImpl invalid\n", func);
        return Gate::kNoObject;
    }
    if (!argsOk) {
        TAL_LOGE_FOR(func, "%s(%d): poolAddr input error\n", func, site);
        return Gate::kBadArgument;
    }
    return Gate::kPass;
}

// The path of the operations that report a code: -5 without an allocator
// (nothing more logged), -1 for a missing argument, else the forwarded
// result; every non-zero code after the object check gets the ErrorCode line,
// with the address when `address` is given.
template <typename Call>
int TalMem::ForwardCode(const char* func, int site, bool argsOk, const uintptr_t* address,
                        Call call)
{
    Gate gate = Check(func, site, argsOk);
    if (gate == Gate::kNoObject) {
        return -5;
    }
    int ret = gate == Gate::kPass ? call() : -1;
    if (ret != 0 && address == nullptr) {
        TAL_LOGE_FOR(func, "QvCamMem %s ErrorCode:%d\n", func, ret);
    } else if (ret != 0) {
        // The address is printed in decimal behind "0x", as the log readers expect.
        TAL_LOGE_FOR(func, "QvCamMem %s ErrorCode:%d addr 0x%u\n", func, ret,
                    static_cast<unsigned int>(TalMaskAddr(*address)));
    }
    return ret;
}

int TalMem::Init(uintptr_t poolAddr, uint32_t size)
{
    return ForwardCode(__func__, 401, poolAddr != 0, nullptr,
                       [&] { return mMemImpl->TalMemInit(poolAddr, size); });
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
    return ForwardCode(__func__, 403, poolAddr != 0, &address,
                       [&] { return mMemImpl->TalMemFree(poolAddr, address); });
}

int TalMem::DumpInfo(uintptr_t poolAddr)
{
    return ForwardCode(__func__, 404, poolAddr != 0, nullptr,
                       [&] { return mMemImpl->TalMemDumpInfo(poolAddr); });
}

int TalMem::SetMcInfo(uintptr_t address, void* record, const char* algoName, const char* moduleName)
{
    return ForwardCode(__func__, 405, address != 0 && record != nullptr, nullptr, [&] {
        return mMemImpl->TalMemSetMcInfo(address, record, algoName, moduleName);
    });
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
