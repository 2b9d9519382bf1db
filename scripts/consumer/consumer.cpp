// The smallest daemon-side user of an installed ksutils: a C function, a class, the error
// record. It fails unless the library it loaded computes the expected path.
#include <ksutils/error.h>
#include <ksutils/path.h>
#include <kspath.h>
#include <cstdio>
int main() {
    kspath_set_install_path("/srv/ks");
    ks::path p(ks::common_path::log_config, "x.json");
    ks::_get_kserrno().set(ks::E_INVAL);
    std::printf("%s %s\n", p.c_str(), ks::_get_kserrno().name.c_str());
    return p.view() == "/srv/ks/etc/logging/x.json" ? 0 : 1;
}
