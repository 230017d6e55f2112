// <C2Component.h>: components are opaque here; block pools only accept one.
#pragma once

#pragma GCC visibility push(default)

// C2Component: what a component derives from on a device. Nothing is read from it here.
class C2Component {
public:
    virtual ~C2Component();
};

#pragma GCC visibility pop
