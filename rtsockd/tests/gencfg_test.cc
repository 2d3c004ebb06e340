// The real rtsockd stores and serves generic configuration (type 72): adds
// with compressed blobs, gets that come back decompressed, getnext in the
// order of id and key, deletes, and the notifications of each change.
#include <zlib.h>

#include "peer_harness.h"
#include "rtsock/rtslib_gencfg.h"

namespace {

using namespace rtsockd_test;

int z_compress(uint8_t *d, unsigned long *dl, const uint8_t *s, unsigned long sl) { return compress(d, dl, s, sl); }
int z_uncompress(uint8_t *d, unsigned long *dl, const uint8_t *s, unsigned long sl) {
  return uncompress(d, dl, s, sl);
}

struct Blob {
  std::string key, blob;
  rts_gencfg_msg req{};
  Blob(uint16_t major, uint16_t minor, std::string k, std::string b) : key(std::move(k)), blob(std::move(b)) {
    req.major = major;
    req.minor = minor;
    req.gencfg_flags = GENCFG_FLAG_ID | GENCFG_FLAG_KEY | GENCFG_FLAG_COMPRESS;
    req.blob_key = reinterpret_cast<uint8_t *>(key.data());
    req.blob_key_len = static_cast<uint32_t>(key.size());
    req.blob = reinterpret_cast<uint8_t *>(blob.data());
    req.blob_len = static_cast<uint32_t>(blob.size());
  }
};

TEST(RtsockdGencfg, StoredServedInOrderAndNotified) {
  Peer peer;
  ASSERT_TRUE(peer.ready());
  Handle h(1), listener(2);
  listener.listen(0, 0x100);
  rtslib_init_blob_compression(h, z_compress, z_uncompress);
  std::string big(300000, 'z');
  Blob a(3, 1, "alpha", big), b(3, 1, "beta", "small"), c(2, 9, "gamma", "first by id");
  for (Blob *x : {&a, &b, &c}) ASSERT_EQ(rtslib_gencfg_add(h, &x->req), 0) << x->key;
  EXPECT_EQ(rtslib_gencfg_add(h, &a.req), EEXIST);
  // Blobs have no text form: a show lists the other stores only.
  std::string shown = peer.admin("show");
  EXPECT_EQ(shown.find("\n\n"), std::string::npos) << shown;
  EXPECT_EQ(shown.compare(shown.size() - 3, 3, "ok\n"), 0);

  // The listener is told of each, with the blob as stored (compressed).
  void *m;
  for (int i = 0; i < 3; i++) {
    ASSERT_EQ(rtslib_msg_read_idl(listener, &m), 0);
    EXPECT_TRUE(static_cast<rts_gencfg_msg *>(m)->gencfg_flags & GENCFG_FLAG_COMPRESSED);
    rtslib_msg_idl_release(nullptr, m);
  }

  Blob q(3, 1, "alpha", "");
  q.req.gencfg_flags = GENCFG_FLAG_ID | GENCFG_FLAG_KEY;
  rts_gencfg_msg *out = nullptr;
  ASSERT_EQ(rtslib_gencfg_get(h, &q.req, RTS_OP_GET, &out), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(out->blob), out->blob_len), big);
  rtslib_msg_idl_release(h, out);

  // getnext from nothing walks by id, then key.
  rts_gencfg_msg walk{};
  std::vector<std::string> keys;
  while (rtslib_gencfg_get(h, &walk, RTS_OP_GETNEXT, &out) == 0) {
    keys.emplace_back(reinterpret_cast<char *>(out->blob_key), out->blob_key_len);
    // walk now names the reply's key: keep a copy past the release.
    static std::string k;
    k = keys.back();
    walk.blob_key = reinterpret_cast<uint8_t *>(k.data());
    walk.blob = nullptr;
    walk.blob_len = 0;
    walk.gencfg_peers = nullptr;
    walk.gencfg_peer_count = 0;
    walk.gencfg_deps = nullptr;
    walk.gencfg_dep_count = 0;
    rtslib_msg_idl_release(h, out);
  }
  EXPECT_EQ(keys, (std::vector<std::string>{"gamma", "alpha", "beta"}));

  // Add-get and change-get answer with the object as stored.
  Blob d(4, 0, "delta", "stored");
  d.req.gencfg_flags = GENCFG_FLAG_ID | GENCFG_FLAG_KEY;
  ASSERT_EQ(rtslib_gencfg_request(h, &d.req, RTS_OP_ADD_GET, &out, nullptr), 0);
  EXPECT_EQ(out->hdr.operation, RTS_OP_ADD_GET);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(out->blob), out->blob_len), "stored");
  rtslib_msg_idl_release(h, out);
  Blob d2(4, 0, "delta", "changed");
  d2.req.gencfg_flags = GENCFG_FLAG_ID | GENCFG_FLAG_KEY;
  ASSERT_EQ(rtslib_gencfg_request(h, &d2.req, RTS_OP_CHANGE_GET, &out, nullptr), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(out->blob), out->blob_len), "changed");
  rtslib_msg_idl_release(h, out);
  Blob e(4, 0, "epsilon", "x");
  e.req.gencfg_flags = GENCFG_FLAG_ID | GENCFG_FLAG_KEY;
  EXPECT_EQ(rtslib_gencfg_request(h, &e.req, RTS_OP_CHANGE_GET, &out, nullptr), ENOENT);
  for (const char *op : {"add", "change"}) {
    ASSERT_EQ(rtslib_msg_read_idl(listener, &m), 0) << op;
    rtslib_msg_idl_release(nullptr, m);
  }

  ASSERT_EQ(rtslib_gencfg_delete(h, &b.req), 0);
  EXPECT_EQ(rtslib_gencfg_get(h, &b.req, RTS_OP_GET, &out), ENOENT);
  ASSERT_EQ(rtslib_msg_read_idl(listener, &m), 0);
  EXPECT_EQ(static_cast<rts_gencfg_msg *>(m)->hdr.operation, RTS_OP_DELETE);
  rtslib_msg_idl_release(nullptr, m);
}

}  // namespace
