/// @file
/// Which release, bootstrap image, setup and patch level the appliance runs, read from small
/// "key=value" files, and version strings compared and normalised.
///
/// Keys are lower-cased, values kept as written (no trimming); empty lines and lines without
/// "=" are ignored; a later line replaces an earlier one with the same key. The getters never
/// fail: a missing file or key is logged and a fallback returned.
#pragma once
#include <ksexport.h>
#include <ksutils/path.h>
#include <ksutils/string_view.h>

#include <string>
#include <unordered_map>

namespace ks {

/// @name Information files
/// Resolved when read, under the install root set at that time (bootstrap: the system "/etc").
/// @{
KS_EXPORT extern const install_path kReleaseInfoFile;    ///< root/kestrum-release
KS_EXPORT extern const install_path kSetupInfoFile;      ///< root/share/data/setup_version
KS_EXPORT extern const install_path kPatchInfoFile;      ///< root/patches/latest/patch.info
KS_EXPORT extern const install_path kBootstrapInfoFile;  ///< /etc/kestrum-release-bootstrap
/// @}

/// Key and value of each line of an information file.
using info_map = std::unordered_map<std::string, std::string>;

/// Adds the lines of the release information file to `info`; false when it cannot be opened.
KS_EXPORT bool load_release_info(info_map& info);
/// Adds the lines of the bootstrap information file to `info`; false when it cannot be opened.
KS_EXPORT bool load_bootstrap_info(info_map& info);
/// Adds the lines of the setup information file to `info`; false when it cannot be opened.
KS_EXPORT bool load_setup_info(info_map& info);

/// The release's "version" value (fallback "2.0.0.0").
KS_EXPORT std::string get_release_version();
/// The bootstrap image's "version" value (fallback "2.0.0.0").
KS_EXPORT std::string get_bootstrap_version();
/// The latest patch's "version" value (fallback "0").
KS_EXPORT std::string get_patch_version();

/// -1, 0 or 1, comparing "."-separated components as numbers; when every common component
/// is equal the shorter text is the smaller (so "1.2" < "1.2.0" and "1.0" < "1.00").
KS_EXPORT int compare_versions(ks::string_view a, ks::string_view b);
/// The text before the first "~" with every "-" turned into "." ("1.2.3-4~beta" -> "1.2.3.4").
KS_EXPORT std::string extract_cloud_version(ks::string_view text);

}  // namespace ks
