// Names of inputs that are addresses.
#ifndef QVXMEDIA_AV_TOOLBOX_ADDRESS_H_
#define QVXMEDIA_AV_TOOLBOX_ADDRESS_H_

#include <string>

namespace lum {

/// Whether `name` is an address ("scheme://", RFC 3986) that no file has for its name. Any thread.
bool IsAddress(const std::string& name);

/// Whether `name` is such an address of a web server ("http://", "https://"). Any thread.
bool IsWebAddress(const std::string& name);

/// `name` as logs, messages and names of folders may show it: a web server's address without user,
/// password and query, since presigned addresses have their signature there; every other name as it
/// is. Any thread.
std::string ShownName(const std::string& name);

}  // namespace lum

#endif  // QVXMEDIA_AV_TOOLBOX_ADDRESS_H_
