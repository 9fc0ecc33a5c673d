// Part of static programs only. Name services beyond /etc/hosts and DNS are shared libraries that belong to the
// system's own glibc; one of another version, loaded into a static program, crashes it. So /etc/nsswitch.conf, which
// asks for them on most desktops, is not followed.
#include <nss.h>

namespace {

[[gnu::constructor]] void keep_to_built_in_name_services() {
  __nss_configure_lookup("hosts", "files dns");
}

}  // namespace
