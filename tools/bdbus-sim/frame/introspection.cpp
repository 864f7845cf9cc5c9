// SPDX-License-Identifier: LGPL-2.1-or-later
// Introspection data made from an object's tables.
#include "frame/introspection.hpp"

#include "frame/codec.hpp"

#include <algorithm>
#include <utility>

namespace bdbus_sim
{

namespace
{

std::string arguments_xml(const std::string &signature, const std::string &direction)
{
    std::string xml;
    for (const std::string &type : split_signature(signature)) {
        xml.append("   <arg type=\"").append(type).append("\"").append(direction).append("/>\n");
    }
    return xml;
}

std::string member_xml(const method &row)
{
    return "  <method name=\"" + row.member + "\">\n" + arguments_xml(row.in, " direction=\"in\"") +
           arguments_xml(row.out, " direction=\"out\"") + "  </method>\n";
}

std::string member_xml(const property &row)
{
    return "  <property name=\"" + row.member + "\" type=\"" + row.signature + "\" access=\"" +
           (row.set ? "readwrite" : "read") + "\"/>\n";
}

std::string member_xml(const signal_row &row)
{
    return "  <signal name=\"" + row.member + "\">\n" + arguments_xml(row.signature, "") + "  </signal>\n";
}

const char doctype_xml[] = "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
                           "\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n";

/** sd-bus answers calls of Peer itself. */
const char standard_interfaces_xml[] = R"( <interface name="org.freedesktop.DBus.Peer">
  <method name="Ping"/>
  <method name="GetMachineId">
   <arg type="s" direction="out"/>
  </method>
 </interface>
 <interface name="org.freedesktop.DBus.Introspectable">
  <method name="Introspect">
   <arg type="s" direction="out"/>
  </method>
 </interface>
 <interface name="org.freedesktop.DBus.Properties">
  <method name="Get">
   <arg type="s" direction="in"/>
   <arg type="s" direction="in"/>
   <arg type="v" direction="out"/>
  </method>
  <method name="GetAll">
   <arg type="s" direction="in"/>
   <arg type="a{sv}" direction="out"/>
  </method>
  <method name="Set">
   <arg type="s" direction="in"/>
   <arg type="s" direction="in"/>
   <arg type="v" direction="in"/>
  </method>
 </interface>
)";

/** The members of each interface, in the order in which the tables name the interfaces. */
class interface_texts
{
public:
    template <typename Row>
    void add(const std::vector<Row> &rows)
    {
        for (const Row &row : rows) {
            of(row.interface) += member_xml(row);
        }
    }

    std::string xml() const
    {
        std::string xml;
        for (const auto &[name, members] : texts_) {
            xml.append(" <interface name=\"").append(name).append("\">\n").append(members).append(" </interface>\n");
        }
        return xml;
    }

private:
    std::string &of(const std::string &interface)
    {
        auto found = std::find_if(texts_.begin(), texts_.end(), [&](auto &text) { return text.first == interface; });
        return found != texts_.end() ? found->second : texts_.emplace_back(interface, "").second;
    }

    std::vector<std::pair<std::string, std::string>> texts_;
};

} // namespace

std::string introspection_data(const object_table *object, const std::vector<std::string> &children)
{
    interface_texts interfaces;
    if (object != nullptr) {
        interfaces.add(object->methods);
        interfaces.add(object->properties);
        interfaces.add(object->signals);
    }
    std::string xml = doctype_xml;
    xml += "<node>\n";
    xml += standard_interfaces_xml + interfaces.xml();
    for (const std::string &name : children) {
        xml += " <node name=\"" + name + "\"/>\n";
    }
    return xml + "</node>\n";
}

} // namespace bdbus_sim
