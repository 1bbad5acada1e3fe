// One fuzzer: UDT_FUZZ_DOOR is its entry function.
#include "FuzzDoors.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nLen)
{
    UDT_FUZZ_DOOR(pData, nLen); // what it throws ends the process: a crash file
    return 0;
}
