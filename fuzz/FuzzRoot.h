// A private MLBD_ROOT for the targets that read the configuration file and the properties
// through the daemon's own platform glue: made once per process (on tmpfs when there is one, so
// that the files written for every input stay in memory) and removed at exit.
#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "platform/Platform.h"

namespace mlbd_fuzz {

inline const std::string& fuzzRoot() {
    static const std::string root = [] {
        std::string tmpl = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : mlbd::scratchDirectory();
        tmpl += "/mlbd-fuzz-XXXXXX";
        if (mkdtemp(&tmpl[0]) == nullptr) abort();
        for (const char* dir : {"/properties", "/vendor", "/vendor/etc", "/vendor/etc/sla"}) {
            mkdir((tmpl + dir).c_str(), 0700);
        }
        setenv("MLBD_ROOT", tmpl.c_str(), 1);
        static std::string removeAtExit = "rm -rf " + tmpl;
        atexit([] { (void)!system(removeAtExit.c_str()); });
        return tmpl;
    }();
    return root;
}

// Replaces the file at `path` below the root with `size` bytes of `data`.
inline void writeFile(const std::string& path, const void* data, size_t size) {
    FILE* file = fopen((fuzzRoot() + path).c_str(), "wb");
    if (file == nullptr) abort();
    if (size > 0 && fwrite(data, 1, size, file) != size) abort();
    fclose(file);
}

}  // namespace mlbd_fuzz
