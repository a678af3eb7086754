// Arbitrary bytes as the lease file, loaded as at start-up.
//
// After every load the table holds at most 10,240 records, its indexes agree
// with a plain walk, and writing it then loading the written file gives the
// same table: the file holds exactly the loaded records in table order, and
// loading it again reverses the order of the records that carry a MAC (the
// table puts each new client lease first) behind the one record without.
//
// Input: a repeat byte, then the file. The file is the rest of the input,
// once, or for a repeat byte of 0xf0 and above 16 * (byte & 15) times (256
// times for 0xff), each copy with its copy number added to the low half of
// every record's address and MAC, so that a short input can fill the table.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "fuzz/fuzz_common.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "lib/log.h"
#include "platform/clock.h"

namespace {

constexpr std::int32_t NOW = 1700000000;
constexpr std::size_t REC = sizeof(dhcps_lease);
constexpr int CEILING = 10240;

std::string dir;

bool write_all(int fd, std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n <= 0) {
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(n));
    }
    return true;
}

bool write_file(const std::string &path, std::span<const std::uint8_t> bytes) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    const bool ok = write_all(fd, std::as_bytes(bytes));
    return ::close(fd) == 0 && ok;
}

std::vector<std::uint8_t> read_file(const std::string &path) {
    std::vector<std::uint8_t> out;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return out;
    }
    std::uint8_t buf[65536];
    for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) {
        out.insert(out.end(), buf, buf + n);
    }
    ::close(fd);
    return out;
}

std::vector<dhcps_lease> table() {
    std::vector<dhcps_lease> out;
    dhcps_lease_foreach([&](const dhcps_lease &l) { out.push_back(l); });
    return out;
}

bool same(const dhcps_lease &a, const dhcps_lease &b) {
    return std::memcmp(&a, &b, REC) == 0;
}

bool has_mac(const dhcps_lease &l) {
    return std::any_of(l.mac, l.mac + 6, [](std::uint8_t b) { return b != 0; });
}

bool set_up() {
    fuzz_quiet_log();
    char tmpl[] = "/dev/shm/fuzz-lease-file.XXXXXX";
    char tmpl2[] = "/tmp/fuzz-lease-file.XXXXXX";
    const char *d = ::mkdtemp(tmpl);
    d = d != nullptr ? d : ::mkdtemp(tmpl2);
    require(d != nullptr);
    dir = d;
    kq_time_set(NOW);
    dhcps_settings_init();
    // The records reach the file without a flush to the device per input.
    dhcps_set_lease_file_writer(write_all);
    return true;
}

void add16(std::uint8_t *p, std::size_t k) {
    const auto v = static_cast<std::uint16_t>(static_cast<std::size_t>(p[0] << 8 | p[1]) + k);
    p[0] = static_cast<std::uint8_t>(v >> 8);
    p[1] = static_cast<std::uint8_t>(v);
}

std::vector<std::uint8_t> file_of(const std::uint8_t *data, std::size_t size) {
    const std::uint8_t r = data[0];
    const std::size_t copies = r == 0xff ? 256 : r >= 0xf0 ? 16u * (r & 15u) : 1;
    std::vector<std::uint8_t> file;
    const std::span<const std::uint8_t> body(data + 1, size - 1);
    for (std::size_t c = 0; c < std::max<std::size_t>(copies, 1); ++c) {
        const std::size_t at = file.size();
        file.insert(file.end(), body.begin(), body.end());
        for (std::size_t rec = at; c != 0 && rec + REC <= file.size(); rec += REC) {
            add16(file.data() + rec + 14, c);  // address, low half
            add16(file.data() + rec + 20, c);  // MAC, low half
        }
    }
    return file;
}

void load(const std::string &path) {
    dhcps_lease_list_init();
    dhcps_load_leases(path.c_str());
    require(dhcps_get_leases_num() <= CEILING);
    require(dhcps_leases_check().empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool ready = set_up();
    (void)ready;
    if (size < 1) {
        return 0;
    }
    const std::string in = dir + "/in", out = dir + "/out";
    require(write_file(in, file_of(data, size)));

    load(in);
    const std::vector<dhcps_lease> first = table();
    // Loaded records are committed and have an address: all of them are written.
    dhcps_write_leases(out.c_str());
    const std::vector<std::uint8_t> written = read_file(out);
    require(written.size() == first.size() * REC);
    for (std::size_t i = 0; i < first.size(); ++i) {
        require(std::memcmp(written.data() + i * REC, &first[i], REC) == 0);
    }

    load(out);
    const std::vector<dhcps_lease> second = table();
    require(second.size() == first.size());
    // The record without a MAC (at most one: each clears the others) stays
    // in front; the client leases come back in reverse order.
    std::vector<dhcps_lease> want;
    std::copy_if(first.begin(), first.end(), std::back_inserter(want),
                 [](const dhcps_lease &l) { return !has_mac(l); });
    require(want.size() <= 1);
    std::copy_if(first.rbegin(), first.rend(), std::back_inserter(want), has_mac);
    for (std::size_t i = 0; i < want.size(); ++i) {
        require(same(second[i], want[i]));
    }
    dhcps_lease_list_init();
    return 0;
}
