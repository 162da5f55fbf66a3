// Reference-counted standard containers, for collections that are shared
// between objects or handed out by reference.
#pragma once

#include "base/CBase.h"

#include <functional>
#include <list>
#include <map>
#include <vector>

namespace zu {

template <class T>
class TArray : public CBase, public std::vector<T> {
public:
    using std::vector<T>::vector;
    TArray() = default;
};

template <class T>
class TList : public CBase, public std::list<T> {
public:
    using std::list<T>::list;
    TList() = default;
};

template <class K, class V, class Less = std::less<K>>
class TMap : public CBase, public std::map<K, V, Less> {
public:
    using std::map<K, V, Less>::map;
    TMap() = default;
};

} // namespace zu
