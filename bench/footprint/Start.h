#pragma once

#include <link.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

/// For counting what it takes to get there.
inline void reachedMain()
{
    if (std::getenv("END_AT_MAIN") != nullptr)
    {
        _exit(0);
    }
}

/// In KiB: the pages that are this process's alone. The others are of files, and shared with whoever maps these as
/// well.
inline long privateMemory()
{
    std::ifstream rollup("/proc/self/smaps_rollup");
    long size = 0;
    for (std::string word; rollup >> word && word != "Anonymous:";)
    {
    }
    rollup >> size;
    return size;
}

inline int sharedObjects()
{
    int count = 0;
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* counter)
        {
            // The program itself has no name, and the kernel's object no file.
            bool const isFile = info->dlpi_name != nullptr && info->dlpi_name[0] == '/';
            *static_cast<int*>(counter) += isFile ? 1 : 0;
            return 0;
        },
        &count);
    return count;
}

inline void printCost()
{
    std::cout << sharedObjects() << ' ' << privateMemory() << std::endl;
}
