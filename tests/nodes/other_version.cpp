// A node library as another major version of vxkit would have it.
extern "C" unsigned vxkitMajorVersion() {
    return 2;
}
