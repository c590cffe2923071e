// Storage root directory and peripheral block of the service manager.
//
// m_fuseMntPath always holds one whole report of the storage service, as it came, all 36
// bytes; m_fuseMntPathMutex guards it against the storage thread that writes it and the
// businesses that build paths from it. Readers copy under the lock and format the copy; a
// change is logged under the lock, so the last line logged names the report kept. The
// report's path is not trusted to be terminated; every reader takes it through MountPathText.
//
// Reports may still be on their way from the storage service when a manager is destroyed,
// and the service has no promise that a withdrawn monitor stays quiet. So the callback
// forwards only to the manager that is alive, under a process-wide lock that the destructor
// takes to let go.
//
// The peripheral block is written once by basic_init, before any business exists, and only
// read afterwards.
#include "TruckServiceManage.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CommonDefine.h"
#include "JQ_SDK_Storage.h"

namespace {

const char kPeripheralConfigPath[] = "/usr/local/cfg/serialconfig.bsn";

// Room for a path that fills all 32 bytes of the report without a terminator.
typedef char MountPathText_t[sizeof(tag_fuseMntPathAck::szMntPath) + 1];

void MountPathText(const tag_fuseMntPathAck& ack, MountPathText_t& text) {
    memcpy(text, ack.szMntPath, sizeof(ack.szMntPath));
    text[sizeof(ack.szMntPath)] = '\0';
}

// Never destroyed: a storage report may come while the process exits.
Mutex& StorageTargetMutex() {
    static Mutex* mutex = new Mutex;
    return *mutex;
}
CTruckServiceManage* s_pStorageTarget = nullptr;  // guarded by StorageTargetMutex()

}  // namespace

void basic_storage_target(CTruckServiceManage* manage, bool alive) {
    MutexLocker locker(StorageTargetMutex());
    if (alive) {
        s_pStorageTarget = manage;
    } else if (s_pStorageTarget == manage) {
        s_pStorageTarget = nullptr;
    }
}

void callback_basic_request_storage_mntputh(void* data, int length, void* user) {
    if (data == nullptr || length != static_cast<int>(sizeof(tag_fuseMntPathAck)) || user == nullptr) {
        TRUCK_LOG(1, "storage callback param error, length = %d\n", length);
        return;
    }
    // The platform's buffer carries no alignment promise: take the record out byte-wise.
    tag_fuseMntPathAck ack;
    memcpy(&ack, data, sizeof(ack));
    MutexLocker locker(StorageTargetMutex());
    if (user == s_pStorageTarget) {
        s_pStorageTarget->basic_set_normal_file_root_dir(&ack);
    }
}

int CTruckServiceManage::basic_request_storage_mntputh() {
    JQ_SDK_Storage_GetFuseMntPath(callback_basic_request_storage_mntputh, this, 0);
    return 0;
}

int CTruckServiceManage::basic_set_normal_file_root_dir(tag_fuseMntPathAck* ack) {
    if (ack == nullptr) {
        return -1;
    }
    MutexLocker locker(m_fuseMntPathMutex);
    // The whole record counts, bytes after the path's end included: the service repeats
    // its last report, and only a real change is worth a line.
    if (memcmp(ack, &m_fuseMntPath, sizeof(m_fuseMntPath)) == 0) {
        return 0;
    }
    memcpy(&m_fuseMntPath, ack, sizeof(m_fuseMntPath));
    MountPathText_t path;
    MountPathText(m_fuseMntPath, path);
    TRUCK_LOG(3, "m_fuseMntPath result = %d, mntPath = %s\n", static_cast<int>(m_fuseMntPath.iResult), path);
    return 0;
}

int CTruckServiceManage::basic_get_normal_file_root_dir(const char* subPath, char* out, int outLen) {
    // A negative length would turn into a huge size below.
    if (subPath == nullptr || out == nullptr || outLen <= 0) {
        TRUCK_LOG(1, "param error length = %d \n", outLen);
        return -1;
    }
    tag_fuseMntPathAck ack;
    {
        MutexLocker locker(m_fuseMntPathMutex);
        memcpy(&ack, &m_fuseMntPath, sizeof(ack));
    }
    MountPathText_t path;
    MountPathText(ack, path);
    if (ack.iResult != 0) {
        TRUCK_LOG(3, "param error result : %d, mntPath = %s \n", static_cast<int>(ack.iResult), path);
        return ack.iResult;
    }
    // A path cut to the caller's buffer is still a success: the caller chose the size.
    snprintf(out, static_cast<size_t>(outLen), "%s/%s", path, subPath);
    return 0;
}

int CTruckServiceManage::basic_get_normal_file_root_dir(char* out, int outLen) {
    return basic_get_normal_file_root_dir("", out, outLen);
}

int CTruckServiceManage::basic_load_peripheral_config() {
    const std::string path = TruckDevicePath(kPeripheralConfigPath);
    // Non-blocking, so that something other than a file at the path cannot hold up the start.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd <= 0) {
        if (fd == 0) {
            close(fd);  // descriptor 0 is refused all the same, but not leaked
        }
        TRUCK_LOG(4, "load peripheral config file[%s] failed\n", kPeripheralConfigPath);
        return 0;
    }
    // The file may be shorter than the block. Touching a mapping past the end of the file
    // faults, so only the bytes the file has are copied and the rest of the block stays
    // zero. An empty file, or one that cannot be mapped, counts as missing.
    struct stat info;
    size_t length = 0;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0) {
        length = static_cast<unsigned long long>(info.st_size) < kPeripheralConfigSize
                     ? static_cast<size_t>(info.st_size)
                     : kPeripheralConfigSize;
    }
    void* mapped = length > 0 ? mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, 0) : MAP_FAILED;
    close(fd);
    if (mapped == MAP_FAILED) {
        TRUCK_LOG(4, "load peripheral config file[%s] failed\n", kPeripheralConfigPath);
        return 0;
    }
    memset(m_peripheralConfig, 0, sizeof(m_peripheralConfig));
    memcpy(m_peripheralConfig, mapped, length);
    munmap(mapped, length);
    TRUCK_LOG(4, "load peripheral config file[%s] success\n", kPeripheralConfigPath);
    return 0;
}

unsigned char* CTruckServiceManage::basic_get_peripheral_config() {
    return m_peripheralConfig;
}
