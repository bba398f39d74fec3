// Containers of the object layer: a byte buffer with an ownership flag that
// also carries packed lists, a string, a vector of pointers with a cursor, a
// singly linked list, a chained hash table of fixed size, and the small value
// types that go into them.  None of them throws; operations that need memory
// report a failure by their result.
#ifndef OBJECTS_BKUTILS_H
#define OBJECTS_BKUTILS_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <new>

// A broken internal rule: prints the expression and where it failed to
// standard error, then aborts.  Active in every build.
[[noreturn]] void bk_assert_failed(const char *expr, const char *file, int line);
#define BK_ASSERT(expr) ((expr) ? (void)0 : bk_assert_failed(#expr, __FILE__, __LINE__))

// A counted byte buffer.  With own set, the destructor frees data with
// free(); otherwise the buffer is a view of bytes that belong to somebody
// else, and their owner must outlive the view.
//
// Packed list: a run of items, each a 4-byte length in network byte order
// followed by that many bytes, with no terminator and no padding.
class Vdata {
  public:
    unsigned size;
    void *data;
    int own;

    Vdata() : size(0), data(0), own(0) {}
    Vdata(unsigned sz, void *d, int o) : size(sz), data(d), own(o) {}
    // Packs up to max strings of list, stopping at the first null pointer,
    // into an owned packed list.  Empty if memory runs out.
    Vdata(char **list, unsigned max);
    // A copy is a view, like assignment.
    Vdata(const Vdata &other) : size(other.size), data(other.data), own(0) {}
    ~Vdata();

    // Stores the three fields; what was held before is not freed.
    void set(unsigned sz, void *d, int o) {
        size = sz;
        data = d;
        own = o;
    }
    // Frees what is owned and leaves the buffer empty and not owning.
    void clear();

    // Makes this a view of the other's bytes (own becomes 0).  What this
    // held before is not freed.
    Vdata &operator=(const Vdata &other);
    // Append the bytes of other, or the text of s without its NUL, as one
    // more item of a packed list.  The result owns a new buffer; the old one
    // is freed if it was owned.  Without memory nothing changes.
    Vdata &operator+=(const Vdata &other);
    Vdata &operator+=(const char *s);

    // Sets out to a view of item index (from 0) of the packed list.  0 if
    // the list ends before that item or an item doesn't fit in what remains.
    int part(int index, Vdata *out) const;
    // Copies up to max items of the packed list into new heap strings, each
    // with a NUL, in out[0], out[1], ...  An item that doesn't fit in what
    // remains ends the work and its slot is left as it was.  Gives 1.
    int chop(char **out, unsigned max) const;

    // Reads a whole file into a new owned buffer (what was owned before is
    // freed).  0 if the file can't be read or is empty.
    int load(const char *path);
    // Writes the bytes to the file, creating or truncating it (mode 0666
    // less the umask).  0 if it can't be opened or written.
    int save(const char *path) const;

    // Holds a new owned copy of the text, without its NUL.  0 without memory.
    int setcstring(const char *s);
    // A new heap copy of the bytes with a NUL added, for the caller to free;
    // null without memory.
    char *getcstring() const;

  private:
    int appendItem(const void *bytes, unsigned len);
};

// A NUL-terminated text on the heap, owned, with its length.
class String {
  public:
    String() : text(0), len(0) {}
    String(const char *s);
    String(const char *s, int n);  // n bytes of s and a NUL
    String(const String &other);
    ~String();

    char *getcstring() const { return text; }
    int length() const { return len; }
    // Replaces the text with a copy of s; null leaves no text.
    void setcstring(const char *s);

    // Add at the end.  0 without memory (the text is then unchanged).
    int append(const char *s);
    int append(char c);
    int append(unsigned int n);  // written as "%u"

    String &operator=(const String &other);
    String &operator=(const char *s);
    // Equal lengths and equal texts; no text counts as the empty text.
    bool operator==(const String &other) const;
    bool operator!=(const String &other) const { return !(*this == other); }

  private:
    char *text;
    int len;
};

// Identity of a message file.
struct DevIno {
    uint64_t dev;
    uint64_t ino;

    DevIno() : dev(0), ino(0) {}
    DevIno(uint64_t d, uint64_t i) : dev(d), ino(i) {}
    bool operator==(const DevIno &o) const { return dev == o.dev && ino == o.ino; }
};

// Where a message was seen before: the internal name of its folder (heap,
// owned) and four words, all in network byte order: the uid, the uid
// validity of the folder, and the original uid and uid validity of the
// message.  Copies duplicate the name.
class MsgRef {
  public:
    char *mboxname;
    uint32_t uid;
    uint32_t uidvalidity;
    uint32_t orig_uid;
    uint32_t orig_uidvalidity;

    MsgRef() : mboxname(0), uid(0), uidvalidity(0), orig_uid(0), orig_uidvalidity(0) {}
    MsgRef(const MsgRef &other);
    ~MsgRef();
    MsgRef &operator=(const MsgRef &other);
};

// A pair of heap strings.  The constructor takes both over; the destructor
// frees them.
class KeyValue {
  public:
    char *key;
    char *value;

    KeyValue(char *k, char *v) : key(k), value(v) {}
    ~KeyValue();

  private:
    KeyValue(const KeyValue &);
    KeyValue &operator=(const KeyValue &);
};

// Chain numbers of the hash tables.
unsigned int hashvalue(const String &key, unsigned long n);
unsigned int hashvalue(const DevIno &key, unsigned long n);

// How a Vector disposes of its elements: objects with delete, texts (heap
// strings of this system) with free.
template <class T>
inline void bk_delete_element(T p) {
    delete p;
}
inline void bk_delete_element(char *p) { free(p); }

// A growing array of pointers that owns its elements, with a cursor for
// walking it.  operator[] past the end and next() at the end give a
// reference to nil, which is always a null pointer.
template <class T>
class Vector {
  public:
    T nil;
    T *items;
    int used;
    int capacity;
    int cursor;

    explicit Vector(int initial) : nil(0), items(0), used(0), capacity(0), cursor(0) {
        if (initial > 0) {
            items = (T *)malloc(sizeof(T) * (size_t)initial);
            if (items) capacity = initial;
        }
    }
    ~Vector() {
        dropAll();
    }

    int count() const { return used; }

    // Takes the element over and gives 1.  When the array has to grow and
    // can't, the vector drops (and deletes) everything it held, keeps
    // nothing, gives 0, and the element stays the caller's; later adds
    // start from an empty array.
    int add(T item) {
        if (used >= capacity) {
            int newcap = capacity > 0 ? capacity * 2 : 1;
            T *grown = 0;
            if (capacity <= 0x3fffffff) grown = (T *)realloc(items, sizeof(T) * (size_t)newcap);
            if (!grown) {
                dropAll();
                return 0;
            }
            items = grown;
            capacity = newcap;
        }
        items[used++] = item;
        return 1;
    }

    T &operator[](unsigned i) {
        if (i < (unsigned)used) return items[i];
        nil = 0;
        return nil;
    }

    void rewind() { cursor = 0; }

    T &next() {
        if (cursor >= 0 && cursor < used) return items[cursor++];
        nil = 0;
        return nil;
    }

  private:
    Vector(const Vector &);
    Vector &operator=(const Vector &);

    void dropAll() {
        for (int i = 0; i < used; i++)
            if (items[i]) bk_delete_element(items[i]);
        free(items);
        items = 0;
        used = 0;
        capacity = 0;
        cursor = 0;
    }
};

// A node of a List; it owns its value.
template <class T>
class Node {
  public:
    T *value;
    Node *next;

    Node(T *v, Node *n) : value(v), next(n) {}
    ~Node() { delete value; }

  private:
    Node(const Node &);
    Node &operator=(const Node &);
};

// A singly linked list of owned values, newest first.
template <class T>
class List {
  public:
    Node<T> *head;
    Node<T> *cursor;
    int count;

    List() : head(0), cursor(0), count(0) {}
    ~List() { removeAll(); }

    // A plain copy of the three fields: afterwards both lists share the
    // same nodes.  Whoever keeps them must make the other one forget them
    // with detach(), or the nodes are deleted twice.
    List &operator=(const List &other) {
        head = other.head;
        cursor = other.cursor;
        count = other.count;
        return *this;
    }

    // Forgets the nodes without deleting them.
    void detach() {
        head = 0;
        cursor = 0;
        count = 0;
    }

    // Puts the value at the head and takes it over: 1, or 0 without memory
    // (the value then stays the caller's).
    int insert(T *value) {
        Node<T> *n = new (std::nothrow) Node<T>(value, head);
        if (!n) return 0;
        head = n;
        count++;
        return 1;
    }

    void rewind() { cursor = head; }

    T *next() {
        if (!cursor) return 0;
        T *v = cursor->value;
        cursor = cursor->next;
        return v;
    }

    // Deletes every node and so every value.
    void removeAll() {
        while (head) {
            Node<T> *n = head;
            head = n->next;
            delete n;
        }
        cursor = 0;
        count = 0;
    }

  private:
    List(const List &);
};

// A chained hash table of SZ chains that never rehashes.  Keys and values
// are held by value; K needs hashvalue(const K&, unsigned long) and ==, and
// both need a default constructor and assignment.  The chain heads lie in
// the object, so a table of many chains belongs on the heap.
template <class K, class V, unsigned int SZ>
class HashTable {
  public:
    struct Entry {
        Entry *next;
        Entry *prev;
        K key;
        V value;

        Entry() : next(0), prev(0) {}
    };

    int count;
    Entry *hash_entries[SZ];

    HashTable() : count(0) {
        for (unsigned int i = 0; i < SZ; i++) hash_entries[i] = 0;
    }

    ~HashTable() {
        for (unsigned int i = 0; i < SZ; i++) {
            Entry *e = hash_entries[i];
            while (e) {
                Entry *n = e->next;
                delete e;
                e = n;
            }
            hash_entries[i] = 0;
        }
        count = 0;
    }

    // The value of the first entry of the key's chain whose key is equal,
    // or null.
    V *search(const K &key) {
        for (Entry *e = hash_entries[hashvalue(key, SZ)]; e; e = e->next)
            if (e->key == key) return &e->value;
        return 0;
    }

    // Adds an entry in front of its chain, so that it hides an older entry
    // with an equal key.  1, or 0 without memory.
    int insert(const K &key, const V &value) {
        unsigned int h = hashvalue(key, SZ);
        if (hash_entries[h]) BK_ASSERT(!(hash_entries[h])->prev);
        Entry *e = new (std::nothrow) Entry;
        if (!e) return 0;
        e->key = key;
        e->value = value;
        e->next = hash_entries[h];
        if (hash_entries[h]) hash_entries[h]->prev = e;
        hash_entries[h] = e;
        count++;
        return 1;
    }

  private:
    static_assert(SZ > 0, "a hash table needs at least one chain");
    HashTable(const HashTable &);
    HashTable &operator=(const HashTable &);
};

// Message files seen in a backup walk.
typedef HashTable<DevIno, MsgRef, 87641> MsgRefTable;
// Old and new user names of a rename.
typedef HashTable<String, String, 200> UserHash;

// 1 if the path names a regular file.
int file_exists(const char *path);
// The size of a regular file, otherwise 0.
int64_t file_size(const char *path);
// Local time as "%a, %d %b %Y %H:%M:%S\n" in buf, which has room for 64
// bytes; gives buf, or null if buf is null.
char *time2str(long t, char *buf);

#endif
