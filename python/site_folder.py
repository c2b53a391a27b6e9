"""Prints the folder, relative to the prefix given, where this interpreter finds packages
installed under that prefix."""
import os
import site
import sys
import sysconfig

prefix = os.path.normpath(sys.argv[1])
if prefix == "/usr":
    folder = "/usr/lib/python3/dist-packages"  # Debian's own
elif prefix == os.path.normpath(site.getuserbase()):
    folder = sysconfig.get_path("platlib", "posix_user")
elif "posix_local" in sysconfig.get_scheme_names() and prefix == "/usr/local":
    folder = f"/usr/local/lib/python{sysconfig.get_python_version()}/dist-packages"
else:
    folder = sysconfig.get_path("platlib", "posix_prefix", vars={"base": prefix, "platbase": prefix})
print(os.path.relpath(folder, prefix))
