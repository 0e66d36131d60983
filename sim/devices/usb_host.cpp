/* The USB host port: its supply switch (GPIO usb_power) and the musb
 * controller's driver binding. While bound, the controller's role file
 * reads "a_host" if the supply was on when it was bound, "b_idle"
 * otherwise; while unbound the file is not there, as the device it belongs
 * to is gone. */
#include "attr.h"
#include "device.h"
#include "gpio.h"
#include "supply.h"

namespace sim {

namespace {

const char kDriver[] = "/sys/bus/platform/drivers/musb-dsps";
const char kDevice[] = "47401c00.usb";

} // namespace

class UsbHost : public Model {
public:
    UsbHost(Board& board, Supply& supply) : supply_(supply)
    {
        GpioLine::output(board, "usb_power", &supply.usbhost_power);
        std::string driver = kDriver;
        board.add_node(std::make_unique<FuncAttr>(board, driver + "/bind", 0200, [] { return std::string(); },
                                                  [this](const std::string& t) { return bind(t, true); }));
        board.add_node(std::make_unique<FuncAttr>(board, driver + "/unbind", 0200, [] { return std::string(); },
                                                  [this](const std::string& t) { return bind(t, false); }));
        board.add_node(std::make_unique<RoleFile>(board, driver + "/" + kDevice + "/musb-hdrc.1.auto/mode", *this));
        board.params().add_int("usb.bound", &bound_, "musb controller bound to its driver (0/1)", 0, 1);
        board.params().add_int("usb.host_role", &host_, "the controller came up as host (0/1)", 0, 1);
    }

    void reset() override
    {
        bound_ = 1;
        host_ = 0;
    }

private:
    /* The role file exists only while the controller is bound. */
    class RoleFile : public AttrNode {
    public:
        RoleFile(Board& board, std::string path, UsbHost& usb) : AttrNode(board, std::move(path), 0644), usb_(usb) {}
        int open(OpenFile& of) override { return usb_.bound_ ? AttrNode::open(of) : -ENODEV; }
        std::string show() override { return usb_.host_ ? "a_host\n" : "b_idle\n"; }
        int store(const std::string&) override { return -EINVAL; }

    private:
        UsbHost& usb_;
    };

    /* The driver core: binding a bound device is EBUSY, unbinding an
     * unbound one ENODEV, an unknown device ENODEV. */
    int bind(const std::string& text, bool on)
    {
        if (!sysfs_streq(text, kDevice))
            return -ENODEV;
        if (on && bound_)
            return -EBUSY;
        if (!on && !bound_)
            return -ENODEV;
        bound_ = on;
        host_ = on && supply_.usbhost_power;
        return 0;
    }

    Supply& supply_;
    int bound_ = 1;
    int host_ = 0;
};

VELASIM_DEVICE(UsbHost, Supply);

} // namespace sim
