"""What the guest-side benchmarks set up first, as a device's init would: a system bus, dummy_hcd
at super speed and the configfs gadget of deploy/gadget/usbd-gadget (not yet bound)."""

import suite
from suite import GADGET, load_controller, run


def set_up():
    with open("/tmp/bus.conf", "w") as f:
        f.write(suite.BUS_CONFIG)
    run("dbus-daemon", "--config-file=/tmp/bus.conf", "--fork")
    load_controller(super_speed=True)
    run(GADGET, "--modprobe", "setup")
