// Realms and the area tree: the tops of the four realm types, the life of
// realms by reference count (every pool back where it started), the rule of
// bare leaves and the order of `achain`, eviction under a small area pool,
// subdivision, removal, resets, the validity of old data, and coordinates
// relative to the nearest exact corner against GMP.
//
// Everything that touches the tree runs on the engine's main thread.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "enginefixture.h"

using enginetest::Engine;

namespace {

// ------------------------------------------------------------ helpers

int chainlength(const CHAIN* head) {
  int n = 0;
  for (const CHAIN* l = head->next; l != head; l = l->next) n++;
  return n;
}

std::vector<AREA*> achainorder(OVCONTEXT* c) {
  std::vector<AREA*> v;
  for (CHAIN* l = c->achain.next; l != &c->achain; l = l->next)
    v.push_back(CHAINRECORD(l, AREA, chain));
  return v;
}

// The rule of a bare leaf, written out independently of the code under test.
bool isbareleaf(OVCONTEXT* c, const AREA* a) {
  for (TEXTURE* t : a->texture)
    if (t) return false;
  for (AREA* ch : a->child)
    if (ch) return false;
  if (!chainempty(&a->viewportchain)) return false;
  if (!a->parent || a->hpvalue) return false;
  if (a->depth == c->juliasizeshift - 6 && a->xinner != -1) return false;
  return true;
}

void collect(const AREA* a, std::vector<const AREA*>* out) {
  out->push_back(a);
  for (AREA* ch : a->child)
    if (ch) collect(ch, out);
}

// Walks the trees of `realms`, which must be all the realms there are, and
// reports every broken link or chain rule; empty means sound.
std::string checktrees(OVCONTEXT* c, const std::vector<REALM*>& realms) {
  std::ostringstream err;
  std::set<const AREA*> intree;
  for (REALM* r : realms) {
    if (!r->top) continue;
    if (r->top->parent) err << "top has a parent\n";
    std::vector<const AREA*> all;
    collect(r->top, &all);
    for (const AREA* a : all) {
      if (!intree.insert(a).second) err << "area reached twice\n";
      if (!(a->flags & A_ACTIVE) || (a->flags & A_DELETED)) err << "inactive area in tree\n";
      if (a->realm != r) err << "area of another realm\n";
      for (AREA* ch : a->child) {
        if (!ch) continue;
        if (ch->parent != a) err << "child's parent link broken\n";
        if (ch->depth != a->depth + 1) err << "child depth wrong\n";
      }
      bool flagged = (a->flags & A_INDELCHAIN) != 0;
      if (flagged != isbareleaf(c, a))
        err << "chain flag " << flagged << " on area at depth " << a->depth
            << " against the bare-leaf rule\n";
    }
  }
  int n = 0;
  for (CHAIN* l = c->achain.next; l != &c->achain; l = l->next) {
    AREA* a = CHAINRECORD(l, AREA, chain);
    n++;
    if (!intree.count(a)) err << "chain entry not in any tree\n";
    if (!(a->flags & A_INDELCHAIN)) err << "chain entry without A_INDELCHAIN\n";
  }
  if (n != c->achainlen) err << "achainlen " << c->achainlen << " but chain holds " << n << "\n";
  if (c->ia != static_cast<int>(intree.size()))
    err << "ia " << c->ia << " but trees hold " << intree.size() << "\n";
  if (c->ia > c->na - 1) err << "pool past its bound\n";
  return err.str();
}

struct COUNTS {
  int ia, ihpvalue, itask, realms, achainlen, ienvironment;
  bool operator==(const COUNTS&) const = default;
};

std::ostream& operator<<(std::ostream& os, const COUNTS& k) {
  return os << "ia " << k.ia << " ihpvalue " << k.ihpvalue << " itask " << k.itask << " realms "
            << k.realms << " achainlen " << k.achainlen << " ienvironment " << k.ienvironment;
}

COUNTS counts(Engine& e) {
  COUNTS k{};
  e.onmain([&](OVCONTEXT* c) {
    k = COUNTS{c->ia, c->ihpvalue, c->itask, chainlength(&c->realmchain), c->achainlen,
               atomicload(&c->ienvironment)};
  });
  return k;
}

// A realm whose first message has run.
REALM* newrealm(Engine& e, REALMTYPE type) {
  REALM* r = addrealm(e.context, type);
  EXPECT_NE(r, nullptr);
  e.onmain([](OVCONTEXT*) {});  // the init message went ahead of this one
  return r;
}

// Detaches and waits until the main thread has run the detach.
void release(Engine& e, REALM* r) {
  detachrealm(e.context, r);
  e.onmain([](OVCONTEXT*) {});
}

// The record-to-record path from the top: child indices, top first.
AREA* descend(OVCONTEXT* c, AREA* a, const std::vector<int>& path) {
  for (int i : path) {
    subdivide(c, a);
    a = a->child[i];
  }
  return a;
}

struct MPF {
  mpf_t v;
  explicit MPF(mp_bitcnt_t bits = 1024) { mpf_init2(v, bits); }
  ~MPF() { mpf_clear(v); }
  MPF(const MPF&) = delete;
  MPF& operator=(const MPF&) = delete;
};

// v += 2^k
void addpow2(mpf_ptr v, long k) {
  MPF t;
  mpf_set_ui(t.v, 1);
  if (k >= 0)
    mpf_mul_2exp(t.v, t.v, k);
  else
    mpf_div_2exp(t.v, t.v, -k);
  mpf_add(v, v, t.v);
}

// |a - b| <= 2^k
bool within(mpf_srcptr a, mpf_srcptr b, long k) {
  MPF d, bound;
  mpf_sub(d.v, a, b);
  mpf_abs(d.v, d.v);
  mpf_set_ui(bound.v, 0);
  addpow2(bound.v, k);
  return mpf_cmp(d.v, bound.v) <= 0;
}

// The exact value of an HFLOAT, all 64 bits of its mantissa: the engine's own
// bridge goes through a double.
void setexact(mpf_ptr v, HFLOAT h) {
  mpf_set_si(v, h.mantissa);
  long k = static_cast<long>(h.exponent) - 62;
  if (k >= 0)
    mpf_mul_2exp(v, v, k);
  else
    mpf_div_2exp(v, v, -k);
}

TEXTURE faketile;  // only its address is used: an area that holds a tile

}  // namespace

// ------------------------------------------------------------ realms and tops

TEST(Realms, MandelbrotTypesGetTheOffsetCorner) {
  Engine e;
  for (REALMTYPE type : {MANDELBROT, GENERAL, HYPERBOLIC}) {
    REALM* r = newrealm(e, type);
    e.onmain([&](OVCONTEXT* c) {
      AREA* top = r->top;
      ASSERT_NE(top, nullptr);
      EXPECT_EQ(top->depth, 0);
      EXPECT_EQ(top->parent, nullptr);
      EXPECT_EQ(top->realm, r);
      ASSERT_NE(top->hpvalue, nullptr);
      EXPECT_EQ(top->nhpvalue, 1);
      EXPECT_GE(mpf_get_prec(top->hpvalue->v[0]), 256u);
      MPF want;
      mpf_set_d(want.v, -7.989964666666666);
      EXPECT_EQ(mpf_cmp(top->hpvalue->v[0], want.v), 0);
      EXPECT_EQ(mpf_cmp(top->hpvalue->v[1], want.v), 0);
      EXPECT_EQ(r->flags, 0x30021006u);
      EXPECT_EQ(r->precoffset, 0);
      EXPECT_EQ(r->jsttask, nullptr);
      EXPECT_EQ(checktrees(c, {r}), "");
    });
    release(e, r);
  }
}

TEST(Realms, JuliaTopSitsAtMinusEightWithAStackTask) {
  Engine e;
  REALM* r = newrealm(e, JULIA);
  e.onmain([&](OVCONTEXT*) {
    ASSERT_NE(r->top, nullptr);
    ASSERT_NE(r->top->hpvalue, nullptr);
    EXPECT_EQ(mpf_cmp_si(r->top->hpvalue->v[0], -8), 0);
    EXPECT_EQ(mpf_cmp_si(r->top->hpvalue->v[1], -8), 0);
    ASSERT_NE(r->jsttask, nullptr);
    EXPECT_EQ(r->jsttask->type, TASKTYPE_JST);
    EXPECT_EQ(r->jsttask->due, 0);
  });
  release(e, r);
}

TEST(Realms, InitPutsTheRealmOnTheChainWithCountOne) {
  Engine e;
  COUNTS start = counts(e);
  REALM* r = newrealm(e, GENERAL);
  e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(atomicload(&r->count), 1);  // the message's reference is given up
    EXPECT_EQ(chainlength(&c->realmchain), 1);
    EXPECT_EQ(c->realmchain.next, &r->chain);
    EXPECT_EQ(c->ia, 1);
  });
  release(e, r);
  EXPECT_EQ(counts(e), start);
}

TEST(Realms, LastDetachAloneFreesTheRealm) {
  Engine e;
  COUNTS start = counts(e);
  REALM* r = newrealm(e, MANDELBROT);
  attachrealm(r);
  release(e, r);
  e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(atomicload(&r->count), 1);
    EXPECT_EQ(chainlength(&c->realmchain), 1);
    EXPECT_NE(r->top, nullptr);
  });
  release(e, r);
  EXPECT_EQ(counts(e), start);
}

TEST(Realms, CopyTakesTypeFlagsInfoAndEnvironmentWithReferences) {
  Engine e;
  COUNTS start = counts(e);
  REALM* a = newrealm(e, GENERAL);
  ENVIRONMENT* env = nullptr;
  e.onmain([&](OVCONTEXT* c) {
    a->flags = R_INTERPOL | R_PRECDOUBLE | R_HPCORRECT;
    a->info.c = addhpv(c, 128);
    mpf_set_d(a->info.c->v[0], -0.75);
    a->info.iter = 1234;
    MPF x(64), y(64);
    mpf_set_d(x.v, -0.75);
    mpf_set_d(y.v, 0.1);
    env = adde(c, x.v, y.v, 128);
    a->e = env;
  });
  REALM* b = copyrealm(e.context, a);
  ASSERT_NE(b, nullptr);
  e.onmain([&](OVCONTEXT* c) {
    EXPECT_EQ(b->type, GENERAL);
    EXPECT_EQ(b->flags, R_INTERPOL | R_PRECDOUBLE | R_HPCORRECT);
    EXPECT_EQ(b->info.c, a->info.c);
    EXPECT_EQ(b->info.c->count, 2);
    EXPECT_EQ(b->info.iter, 1234);
    EXPECT_EQ(b->e, env);
    EXPECT_EQ(atomicload(&env->count), 2);
    EXPECT_EQ(atomicload(&a->count), 1);  // the copy message's hold is given back
    EXPECT_EQ(atomicload(&b->count), 1);
    ASSERT_NE(b->top, nullptr);
    EXPECT_NE(b->top, a->top);
    EXPECT_EQ(b->precoffset, 0);
    EXPECT_EQ(chainlength(&c->realmchain), 2);
    EXPECT_EQ(checktrees(c, {a, b}), "");
  });
  release(e, a);
  e.onmain([&](OVCONTEXT*) {
    EXPECT_EQ(b->info.c->count, 1);
    EXPECT_EQ(atomicload(&env->count), 1);
  });
  release(e, b);
  EXPECT_EQ(counts(e), start);
}

TEST(Realms, CopyOfAJuliaRealmGetsItsOwnStackTask) {
  Engine e;
  COUNTS start = counts(e);
  REALM* a = newrealm(e, JULIA);
  REALM* b = copyrealm(e.context, a);
  e.onmain([&](OVCONTEXT* c) {
    ASSERT_NE(b->jsttask, nullptr);
    EXPECT_NE(b->jsttask, a->jsttask);
    EXPECT_EQ(mpf_cmp_si(b->top->hpvalue->v[0], -8), 0);
    EXPECT_EQ(c->itask, start.itask + 2);
  });
  release(e, b);
  release(e, a);
  EXPECT_EQ(counts(e), start);
}

TEST(Realms, MadeCopiedAttachedAndDetachedEndsWithEveryPoolAtStart) {
  Engine e;
  COUNTS start = counts(e);
  std::vector<REALM*> realms;
  for (REALMTYPE type : {MANDELBROT, JULIA, GENERAL, HYPERBOLIC}) realms.push_back(newrealm(e, type));
  e.onmain([&](OVCONTEXT* c) {
    realms[2]->info.c = addhpv(c, 256);
    MPF x(64), y(64);
    realms[2]->e = adde(c, x.v, y.v, 64);
    for (REALM* r : realms) descend(c, r->top, {2, 1, 3, 0, 2});
  });
  // Copies and references from another thread, as the application's thread
  // makes them.
  std::vector<REALM*> copies;
  std::thread other([&] {
    for (REALM* r : realms) {
      copies.push_back(copyrealm(e.context, r));
      attachrealm(r);
    }
  });
  other.join();
  e.onmain([&](OVCONTEXT* c) {
    std::vector<REALM*> all = realms;
    all.insert(all.end(), copies.begin(), copies.end());
    EXPECT_EQ(checktrees(c, all), "");
    EXPECT_EQ(chainlength(&c->realmchain), 8);
    for (REALM* r : realms) descend(c, r->top, {1, 1, 1});
    for (REALM* r : copies) descend(c, r->top, {3, 2});
    EXPECT_EQ(checktrees(c, all), "");
  });
  for (REALM* r : realms) detachrealm(e.context, r);  // the extra references
  for (REALM* r : copies) detachrealm(e.context, r);
  e.onmain([&](OVCONTEXT* c) { EXPECT_EQ(chainlength(&c->realmchain), 4); });
  for (REALM* r : realms) detachrealm(e.context, r);
  e.onmain([](OVCONTEXT*) {});
  e.waitidle();
  EXPECT_EQ(counts(e), start);
}

TEST(Realms, StoppedEngineMakesNoRealmAndDetachDoesNothing) {
  Engine e;
  REALM* r = newrealm(e, GENERAL);
  shutdowncontext(e.context, false);
  EXPECT_EQ(addrealm(e.context, GENERAL), nullptr);
  EXPECT_EQ(copyrealm(e.context, r), nullptr);
  detachrealm(e.context, r);
  detachrealm(e.context, nullptr);
  EXPECT_EQ(atomicload(&r->count), 1);
  ASSERT_TRUE(relaunchcontext(e.context));
  COUNTS before = counts(e);
  EXPECT_EQ(before.realms, 1);
  release(e, r);
  COUNTS after = counts(e);
  EXPECT_EQ(after.realms, 0);
  EXPECT_EQ(after.ia, 0);
  EXPECT_EQ(after.ihpvalue, before.ihpvalue - 1);
}

// ------------------------------------------------------------ the bare-leaf rule

TEST(AreaTree, FreshAreaPrecoffsetOneNeverMatchesFreshGeneralRealm) {
  Engine e;
  REALM* r = newrealm(e, GENERAL);
  e.onmain([&](OVCONTEXT* c) {
    subdivide(c, r->top);
    AREA* a = r->top->child[1];
    EXPECT_EQ(a->precoffset, 1);
    EXPECT_EQ(r->precoffset, 0);
    // Everything else made to agree with the realm.
    a->flags |= A_INTERPOL | A_SUPERINTERPOL | A_GLOBALINTERPOL | A_HPCORRECT | A_JULIACORRECT;
    a->modeprec = r->flags & R_PRECMASK;
    EXPECT_FALSE(isvalid(c, a));
    a->precoffset = 0;
    EXPECT_TRUE(isvalid(c, a));
  });
  release(e, r);
}

TEST(AreaTree, FreshAreaFields) {
  Engine e;
  REALM* r = newrealm(e, GENERAL);
  e.onmain([&](OVCONTEXT* c) {
    r->computecycle = 17;
    subdivide(c, r->top);
    for (int i = 0; i < 4; i++) {
      AREA* a = r->top->child[i];
      EXPECT_EQ(a->parent, r->top);
      EXPECT_EQ(a->realm, r);
      EXPECT_EQ(a->depth, 1);
      EXPECT_EQ(a->computecycle, 17u);
      EXPECT_EQ(a->flags, A_ACTIVE | A_INDELCHAIN);
      EXPECT_EQ(a->prec, -1);
      EXPECT_EQ(a->xinner, -1);
      EXPECT_EQ(a->yinner, -1);
      EXPECT_EQ(a->priority, -1);
      EXPECT_EQ(a->modeprec, 0u);
      EXPECT_EQ(a->channels, 0u);
      EXPECT_EQ(a->nhpvalue, 0);
      EXPECT_EQ(a->worker, nullptr);
      EXPECT_EQ(a->hpvalue, nullptr);
      EXPECT_EQ(a->e, nullptr);
      EXPECT_TRUE(chainempty(&a->viewportchain));
      for (TEXTURE* t : a->texture) EXPECT_EQ(t, nullptr);
    }
  });
  release(e, r);
}

TEST(AreaTree, AreaWithHpvalueNeverGetsOnTheChain) {
  Engine e;
  REALM* r = newrealm(e, GENERAL);
  e.onmain([&](OVCONTEXT* c) {
    subdivide(c, r->top);
    AREA* a = r->top->child[2];
    EXPECT_TRUE(a->flags & A_INDELCHAIN);
    a->hpvalue = addhpv(c, 64);
    a->nhpvalue = 1;
    updatedelchain(c, a);
    EXPECT_FALSE(a->flags & A_INDELCHAIN);
    EXPECT_EQ(c->achainlen, 3);
    updatedelchain(c, a);  // asking again changes nothing
    EXPECT_EQ(c->achainlen, 3);
    // Its children come and go; it stays off.
    subdivide(c, a);
    for (AREA*& ch : a->child) {
      removea(c, ch);
      ch = nullptr;
    }
    updatedelchain(c, a);
    EXPECT_FALSE(a->flags & A_INDELCHAIN);
    EXPECT_EQ(checktrees(c, {r}), "");
  });
  release(e, r);
}

TEST(AreaTree, JuliaGridBaseNeverGetsOnTheChain) {
  Engine e;
  REALM* r = newrealm(e, JULIA);
  e.onmain([&](OVCONTEXT* c) {
    int base = c->juliasizeshift - 6;
    AREA* a = r->top;
    while (a->depth < base) a = descend(c, a, {0});
    AREA* sibling = a->parent->child[1];
    a->xinner = 0;
    a->yinner = 0;
    updatedelchain(c, a);
    EXPECT_FALSE(a->flags & A_INDELCHAIN);
    // The same grid place one level deeper is no base and may go.
    AREA* below = descend(c, a, {3});
    below->xinner = 1;
    updatedelchain(c, below);
    EXPECT_TRUE(below->flags & A_INDELCHAIN);
    // Without a grid place, an area at the base's depth is an ordinary leaf.
    EXPECT_TRUE(sibling->flags & A_INDELCHAIN);
    for (AREA*& ch : a->child) {
      removea(c, ch);
      ch = nullptr;
    }
    updatedelchain(c, a);
    EXPECT_FALSE(a->flags & A_INDELCHAIN);
    EXPECT_EQ(checktrees(c, {r}), "");
  });
  release(e, r);
}

TEST(AreaTree, TileOrViewportEntryTakesAnAreaOffTheChainAndBack) {
  Engine e;
  REALM* r = newrealm(e, GENERAL);
  e.onmain([&](OVCONTEXT* c) {
    subdivide(c, r->top);
    AREA* a = r->top->child[0];
    a->texture[8] = &faketile;
    updatedelchain(c, a);
    EXPECT_FALSE(a->flags & A_INDELCHAIN);
    a->texture[8] = nullptr;
    updatedelchain(c, a);
    EXPECT_TRUE(a->flags & A_INDELCHAIN);
    EXPECT_EQ(achainorder(c).back(), a);  // back on as the youngest
    CHAIN entry;
    chaininsbegin(&a->viewportchain, &entry);
    updatedelchain(c, a);
    EXPECT_FALSE(a->flags & A_INDELCHAIN);
    chainrem(&entry);
    updatedelchain(c, a);
    EXPECT_TRUE(a->flags & A_INDELCHAIN);
    // The top has no parent: never on the chain.
    updatedelchain(c, r->top);
    EXPECT_FALSE(r->top->flags & A_INDELCHAIN);
    EXPECT_EQ(checktrees(c, {r}), "");
  });
  release(e, r);
}

TEST(AreaTree, RemoveaLeavesTheParentsChildSlot) {
  Engine e;
  COUNTS start = counts(e);
  REALM* r = newrealm(e, GENERAL);
  e.onmain([&](OVCONTEXT* c) {
    subdivide(c, r->top);
    AREA* a = r->top->child[3];
    subdivide(c, a);
    a->m = addhpv(c, 64);
    int ia = c->ia;
    int ihpvalue = c->ihpvalue;
    removea(c, a);
    EXPECT_EQ(r->top->child[3], a);  // the caller's to clear
    EXPECT_EQ(c->ia, ia - 5);
    EXPECT_EQ(c->ihpvalue, ihpvalue - 1);
    EXPECT_EQ(a->flags, POOL_FREE);
    EXPECT_EQ(a->parent, nullptr);
    r->top->child[3] = nullptr;
    EXPECT_EQ(checktrees(c, {r}), "");
  });
  release(e, r);
  EXPECT_EQ(counts(e), start);
}

TEST(AreaTree, SubdivideMakesChainedChildrenYoungerThanEveryOtherEntry) {
  Engine e;
  REALM* r = newrealm(e, GENERAL);
  e.onmain([&](OVCONTEXT* c) {
    subdivide(c, r->top);
    AREA* a = r->top->child[0];
    subdivide(c, a);
    // Two children of `a` on the chain, two gone (evicted earlier, say).
    AREA* kept1 = a->child[1];
    AREA* kept3 = a->child[3];
    removea(c, a->child[0]);
    a->child[0] = nullptr;
    removea(c, a->child[2]);
    a->child[2] = nullptr;
    // Other entries that became bare later than the two.
    subdivide(c, r->top->child[2]);
    std::vector<AREA*> before = achainorder(c);
    ASSERT_EQ(before.size(), 8u);
    subdivide(c, a);
    std::vector<AREA*> after = achainorder(c);
    ASSERT_EQ(after.size(), 10u);
    // Kept children and the two new ones are the four youngest, in child order
    // of the kept ones first.
    std::vector<AREA*> young(after.end() - 4, after.end());
    EXPECT_EQ(young[0], kept1);
    EXPECT_EQ(young[1], kept3);
    EXPECT_EQ(young[2], a->child[0]);
    EXPECT_EQ(young[3], a->child[2]);
    // Everything else keeps its order.
    std::vector<AREA*> rest(after.begin(), after.end() - 4);
    std::vector<AREA*> beforerest;
    for (AREA* x : before)
      if (x != kept1 && x != kept3) beforerest.push_back(x);
    EXPECT_EQ(rest, beforerest);
    EXPECT_FALSE(a->flags & A_INDELCHAIN);
    EXPECT_EQ(checktrees(c, {r}), "");
  });
  release(e, r);
}

TEST(AreaTree, SubdivideTakesABareLeafOffTheChain) {
  Engine e;
  REALM* r = newrealm(e, GENERAL);
  e.onmain([&](OVCONTEXT* c) {
    subdivide(c, r->top);
    AREA* a = r->top->child[1];
    ASSERT_TRUE(a->flags & A_INDELCHAIN);
    subdivide(c, a);
    EXPECT_FALSE(a->flags & A_INDELCHAIN);
    for (AREA* ch : a->child) ASSERT_NE(ch, nullptr);
    EXPECT_EQ(c->achainlen, 3 + 4);
    int ia = c->ia;
    subdivide(c, a);  // all four there: nothing new
    EXPECT_EQ(c->ia, ia);
    EXPECT_EQ(checktrees(c, {r}), "");
  });
  release(e, r);
}

// ------------------------------------------------------------ eviction

TEST(AreaTree, EvictionTakesOnlyBareLeavesOldestFirst) {
  Engine e;
  COUNTS start = counts(e);
  constexpr int NA = 64;
  e.onmain([&](OVCONTEXT* c) {
    ASSERT_EQ(c->ia, 0);  // no area exists yet: the pool may shrink
    c->na = NA;
  });
  REALM* r = newrealm(e, GENERAL);
  testing::internal::CaptureStderr();
  int evictions = 0;
  e.onmain([&](OVCONTEXT* c) {
    std::mt19937 rng(12345);
    int base = c->juliasizeshift - 6;
    // Guarded areas: the kinds of value a leaf can hold.
    std::vector<AREA*> guarded;
    std::vector<CHAIN> entries(4);
    for (CHAIN& en : entries) initchain(&en);
    auto guard = [&](AREA* a) {
      int kind = static_cast<int>(guarded.size()) % 4;
      if (kind == 0) a->texture[guarded.size() % NCHANNELS] = &faketile;
      if (kind == 1) {
        a->hpvalue = addhpv(c, 64);
        a->nhpvalue = 1;
      }
      if (kind == 2) chaininsbegin(&a->viewportchain, &entries[guarded.size() / 4]);
      if (kind == 3) {
        a->xinner = 0;
        a->yinner = 0;
      }
      guarded.push_back(a);
      updatedelchain(c, a);
    };
    for (int step = 0; step < 3000; step++) {
      std::vector<const AREA*> all;
      collect(r->top, &all);
      // Growth stays shallow enough that the pool always has a leaf to give.
      std::vector<AREA*> targets;
      for (const AREA* x : all)
        if (x->depth < 18) targets.push_back(const_cast<AREA*>(x));
      AREA* a = targets[rng() % targets.size()];
      // The positions of the chain's entries before; an evicted record may be
      // reused at once, so identity is the record at its place in the tree.
      std::vector<AREA*> order = achainorder(c);
      std::vector<std::tuple<AREA*, AREA*, int>> places;
      for (AREA* x : order) {
        int i = 0;
        while (x->parent->child[i] != x) i++;
        places.emplace_back(x, x->parent, i);
      }
      subdivide(c, a);
      std::string broken = checktrees(c, {r});
      ASSERT_EQ(broken, "") << "after step " << step;
      // Evicted: the entries no longer at their place. They must be the
      // oldest, leaving out `a` and its children, which subdivide protects.
      bool gap = false;
      for (auto& [x, parent, i] : places) {
        if (x == a || parent == a) continue;
        bool gone = parent->child[i] != x;
        if (gone) {
          EXPECT_FALSE(gap) << "a younger leaf went before an older one, step " << step;
          evictions++;
        } else {
          gap = true;
        }
      }
      for (AREA* g : guarded) {
        // Still in the tree, still holding its value.
        bool intree = false;
        for (const AREA* x : all)
          if (x == g) intree = true;
        EXPECT_TRUE(intree);
        EXPECT_TRUE(g->flags & A_ACTIVE);
        EXPECT_FALSE(g->flags & A_INDELCHAIN);
      }
      for (AREA* ch : a->child) ASSERT_NE(ch, nullptr) << "step " << step;
      // Guard a few shallow new children, one of each kind, at the Julia
      // grid's base depth for the grid kind.
      if (guarded.size() < 8 && step % 7 == 0) {
        AREA* ch = a->child[rng() % 4];
        bool gridkind = guarded.size() % 4 == 3;
        if (ch->depth <= 3 && (!gridkind || ch->depth == base)) guard(ch);
      }
    }
    EXPECT_GE(guarded.size(), 4u);
    // Guards off again, so that the teardown frees an ordinary tree.
    for (AREA* g : guarded) {
      for (TEXTURE*& t : g->texture) t = nullptr;
      if (!chainempty(&g->viewportchain)) initchain(&g->viewportchain);
    }
  });
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.find("FATAL"), std::string::npos) << err;
  EXPECT_GT(evictions, 1000);  // far past the pool of 64
  release(e, r);
  EXPECT_EQ(counts(e), start);
}

TEST(AreaTree, EvictedLeafLetsItsParentBecomeABareLeaf) {
  Engine e;
  COUNTS start = counts(e);
  e.onmain([&](OVCONTEXT* c) { c->na = 8; });  // full at 7 areas
  REALM* r = newrealm(e, GENERAL);
  e.onmain([&](OVCONTEXT* c) {
    AREA* top = r->top;
    subdivide(c, top);  // 5 areas
    AREA* a = top->child[0];
    subdivide(c, a);  // two more fit; the oldest two leaves make room for the rest
    EXPECT_EQ(c->ia, 7);
    EXPECT_EQ(top->child[1], nullptr);
    EXPECT_EQ(top->child[2], nullptr);
    ASSERT_NE(top->child[3], nullptr);
    EXPECT_EQ(checktrees(c, {r}), "");
    AREA* leaf = a->child[3];
    subdivide(c, leaf);  // the top's child 3, then a's children 0, 1, 2
    EXPECT_EQ(top->child[3], nullptr);
    EXPECT_EQ(a->child[0], nullptr);
    EXPECT_EQ(a->child[1], nullptr);
    EXPECT_EQ(a->child[2], nullptr);
    EXPECT_EQ(a->child[3], leaf);
    EXPECT_FALSE(a->flags & A_INDELCHAIN);  // it still has a child
    EXPECT_EQ(checktrees(c, {r}), "");
    subdivide(c, top);  // leaf's children 0, 1, 2 make room for three
    EXPECT_EQ(checktrees(c, {r}), "");
    AREA* t1 = top->child[1];
    // Leaf's last child goes: leaf becomes the youngest bare leaf, after the
    // top's new children 2 and 3; they go, then leaf, and then `a` is bare.
    subdivide(c, t1);
    EXPECT_EQ(top->child[0], a);
    EXPECT_EQ(top->child[2], nullptr);
    EXPECT_EQ(top->child[3], nullptr);
    for (AREA* ch : a->child) EXPECT_EQ(ch, nullptr);
    EXPECT_TRUE(a->flags & A_INDELCHAIN);
    std::vector<AREA*> order = achainorder(c);
    ASSERT_EQ(order.size(), 5u);
    EXPECT_EQ(order[0], a);
    for (int i = 0; i < 4; i++) EXPECT_EQ(order[i + 1], t1->child[i]);
    EXPECT_EQ(c->ia, 7);
    EXPECT_EQ(checktrees(c, {r}), "");
  });
  release(e, r);
  EXPECT_EQ(counts(e), start);
}

TEST(AreaTree, EmptyChainWhenFullPrintsNothingToRemove) {
  Engine e;
  e.onmain([&](OVCONTEXT* c) { c->na = 6; });
  REALM* r = newrealm(e, GENERAL);
  e.onmain([&](OVCONTEXT* c) {
    subdivide(c, r->top);  // 5 areas: full at na - 1
    for (AREA* ch : r->top->child) {
      ch->texture[0] = &faketile;
      updatedelchain(c, ch);
    }
    ASSERT_EQ(c->achainlen, 0);
    testing::internal::CaptureStderr();
    AREA* got = adda(c, r->top->child[0], 2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "adda: FATAL ERROR: nothing to remove\n");
    EXPECT_EQ(got, nullptr);
    EXPECT_EQ(c->ia, 5);
    // subdivide passes the failure on: the child slots stay empty.
    testing::internal::CaptureStderr();
    subdivide(c, r->top->child[1]);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err,
              "adda: FATAL ERROR: nothing to remove\n"
              "adda: FATAL ERROR: nothing to remove\n"
              "adda: FATAL ERROR: nothing to remove\n"
              "adda: FATAL ERROR: nothing to remove\n");
    for (AREA* ch : r->top->child[1]->child) EXPECT_EQ(ch, nullptr);
    for (AREA* ch : r->top->child) ch->texture[0] = nullptr;
  });
  release(e, r);
}

TEST(AreaTree, ChainEntryWithChildrenPrintsToremoveHasChildren) {
  Engine e;
  e.onmain([&](OVCONTEXT* c) { c->na = 10; });
  REALM* r = newrealm(e, GENERAL);
  e.onmain([&](OVCONTEXT* c) {
    subdivide(c, r->top);
    AREA* a = r->top->child[0];
    subdivide(c, a);  // 9 areas: full
    // A corrupt chain: `a`, with children, as its oldest entry.
    chaininsend(&c->achain, &a->chain);
    a->flags |= A_INDELCHAIN;
    c->achainlen++;
    int len = c->achainlen;
    testing::internal::CaptureStderr();
    AREA* got = adda(c, a->child[0], 2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "adda: FATAL ERROR: Toremove has children. \n");
    EXPECT_EQ(got, nullptr);
    // It was taken off the chain, and nothing else was removed.
    EXPECT_FALSE(a->flags & A_INDELCHAIN);
    EXPECT_EQ(c->achainlen, len - 1);
    EXPECT_EQ(c->ia, 9);
    EXPECT_EQ(checktrees(c, {r}), "");
  });
  release(e, r);
}

// ------------------------------------------------------------ reset and validity

TEST(AreaTree, ResetareaStopsTheJobAndDropsHowItWasMade) {
  Engine e;
  REALM* r = newrealm(e, GENERAL);
  WORKER* w = nullptr;
  e.onmain([&](OVCONTEXT* c) {
    subdivide(c, r->top);
    AREA* a = r->top->child[0];
    w = addworker(c, THREAD_MAIN, worker_nop);
    a->worker = w;
    CHAIN waiting;
    initchain(&waiting);
    chaininsbegin(&waiting, &a->waitforjuliastack);
    a->flags |= 0x24ec | A_INDELCHAIN | A_ACTIVE;
    resetarea(c, a, true);
    EXPECT_TRUE(w->stop);
    EXPECT_EQ(a->worker, nullptr);
    EXPECT_EQ(a->flags, A_ACTIVE | A_INDELCHAIN);
    EXPECT_TRUE(chainempty(&waiting));
    // Under a running correction program nothing changes.
    WORKER* w2 = addworker(c, THREAD_MAIN, worker_nop);
    w2->stop = false;
    a->worker = w2;
    a->flags |= A_INPPPROGRAM | A_PRECALCULATED | A_INTERPOL;
    resetarea(c, a, false);
    EXPECT_FALSE(w2->stop);
    EXPECT_EQ(a->worker, w2);
    EXPECT_EQ(a->flags, A_ACTIVE | A_INDELCHAIN | A_INPPPROGRAM | A_PRECALCULATED | A_INTERPOL);
    a->worker = nullptr;
    freeworker(c, w2);
    freeworker(c, w);
  });
  release(e, r);
}

TEST(AreaTree, IsvalidByRealmType) {
  Engine e;
  std::vector<REALM*> realms;
  for (REALMTYPE type : {MANDELBROT, JULIA, GENERAL, HYPERBOLIC}) realms.push_back(newrealm(e, type));
  e.onmain([&](OVCONTEXT* c) {
    for (REALM* r : realms) {
      subdivide(c, r->top);
      AREA* a = r->top->child[0];
      // Made exactly as the realm makes data now.
      a->flags = A_ACTIVE | A_INDELCHAIN | A_INTERPOL | A_SUPERINTERPOL | A_GLOBALINTERPOL |
                 A_HPCORRECT | A_JULIACORRECT;
      a->modeprec = 0;
      a->precoffset = 0;
      bool want = r->type != JULIA;
      EXPECT_EQ(isvalid(c, a), want) << "type " << r->type;
      // Another precision offset: only GENERAL cares.
      a->precoffset = 5;
      EXPECT_EQ(isvalid(c, a), r->type == MANDELBROT || r->type == HYPERBOLIC)
          << "type " << r->type;
      a->precoffset = 0;
      // Another number format, and each recorded mode bit in turn.
      a->modeprec = R_PRECHFLOAT;
      EXPECT_EQ(isvalid(c, a), r->type == HYPERBOLIC) << "type " << r->type;
      a->modeprec = 0;
      for (uint32_t bit : {A_INTERPOL, A_SUPERINTERPOL, A_GLOBALINTERPOL, A_HPCORRECT,
                           A_JULIACORRECT}) {
        a->flags ^= bit;
        EXPECT_EQ(isvalid(c, a), r->type == HYPERBOLIC) << "type " << r->type << " bit " << bit;
        a->flags ^= bit;
      }
      // Bits that don't record how data were made don't matter.
      a->flags |= A_PRECALCULATED;
      EXPECT_EQ(isvalid(c, a), want);
      // A realm flag changes: the area must follow.
      r->flags &= ~R_SUPERINTERPOL;
      EXPECT_EQ(isvalid(c, a), r->type == HYPERBOLIC);
      a->flags &= ~A_SUPERINTERPOL;
      EXPECT_EQ(isvalid(c, a), want);
      r->flags |= R_SUPERINTERPOL;
      a->flags |= A_SUPERINTERPOL;
    }
  });
  for (REALM* r : realms) release(e, r);
}

TEST(AreaTree, IsvalidRedrawIsASignedCycleDifference) {
  Engine e;
  REALM* r = newrealm(e, HYPERBOLIC);
  e.onmain([&](OVCONTEXT* c) {
    subdivide(c, r->top);
    AREA* a = r->top->child[0];
    a->computecycle = 10;
    r->redraw = 10;
    EXPECT_TRUE(isvalid(c, a));
    r->redraw = 11;
    EXPECT_FALSE(isvalid(c, a));
    // Across the wrap: 0xfffffffe is older than 3.
    a->computecycle = 0xfffffffeu;
    r->redraw = 3;
    EXPECT_FALSE(isvalid(c, a));
    a->computecycle = 3;
    r->redraw = 0xfffffffeu;
    EXPECT_TRUE(isvalid(c, a));
  });
  release(e, r);
}

// ------------------------------------------------------------ coordinates

TEST(AreaTree, GetcoordarelMatchesExactSumsAtSeveralDepths) {
  Engine e;
  REALM* r = newrealm(e, GENERAL);
  e.onmain([&](OVCONTEXT* c) {
    std::mt19937 rng(777);
    for (int depth : {0, 1, 2, 5, 20, 40, 58, 62, 63, 64, 100, 300}) {
      // A fresh path each time; old ones stay in the tree (the pool is large).
      std::vector<int> path;
      for (int d = 0; d < depth; d++) path.push_back(static_cast<int>(rng() % 4));
      AREA* a = descend(c, r->top, path);
      ASSERT_EQ(a->depth, depth);
      MPF x, y;
      mpf_set_ui(x.v, 0);
      mpf_set_ui(y.v, 0);
      for (int d = 1; d <= depth; d++) {
        int i = path[d - 1];
        if (i == 1 || i == 2) addpow2(x.v, 4 - d);
        if (i == 2 || i == 3) addpow2(y.v, 4 - d);
      }
      HFLOATCOMPLEX rel;
      HPVALUE* h = getcoordarel(a, &rel);
      EXPECT_EQ(h, r->top->hpvalue);
      MPF gx, gy;
      setexact(gx.v, crealHF(rel));
      setexact(gy.v, cimagHF(rel));
      if (depth <= 60) {
        // Up to 60 levels every step fits the mantissa: exact.
        EXPECT_EQ(mpf_cmp(gx.v, x.v), 0) << "depth " << depth;
        EXPECT_EQ(mpf_cmp(gy.v, y.v), 0) << "depth " << depth;
      } else {
        // Each addition truncates by less than one unit of the final
        // exponent's last place.
        long ulp = static_cast<long>(rel.exponent) - 62;
        long bound = ulp + 9;  // depth <= 300 < 2^9 additions
        EXPECT_TRUE(within(gx.v, x.v, bound)) << "depth " << depth;
        EXPECT_TRUE(within(gy.v, y.v, bound)) << "depth " << depth;
      }
    }
  });
  release(e, r);
}

TEST(AreaTree, GetcoordarelStopsAtTheNearestExactCorner) {
  Engine e;
  REALM* r = newrealm(e, GENERAL);
  e.onmain([&](OVCONTEXT* c) {
    std::vector<int> upper = {2, 2, 1, 3, 0, 2, 1, 1, 3, 2};
    std::vector<int> lower;
    std::mt19937 rng(99);
    for (int d = 0; d < 90; d++) lower.push_back(static_cast<int>(rng() % 4));
    AREA* mid = descend(c, r->top, upper);
    mid->hpvalue = addhpv(c, 512);
    mid->nhpvalue = 1;
    updatedelchain(c, mid);
    AREA* a = descend(c, mid, lower);
    HFLOATCOMPLEX rel;
    EXPECT_EQ(getcoordarel(a, &rel), mid->hpvalue);
    MPF x, y;
    mpf_set_ui(x.v, 0);
    mpf_set_ui(y.v, 0);
    for (size_t k = 0; k < lower.size(); k++) {
      int d = static_cast<int>(upper.size() + k + 1);
      int i = lower[k];
      if (i == 1 || i == 2) addpow2(x.v, 4 - d);
      if (i == 2 || i == 3) addpow2(y.v, 4 - d);
    }
    MPF gx, gy;
    setexact(gx.v, crealHF(rel));
    setexact(gy.v, cimagHF(rel));
    long bound = static_cast<long>(rel.exponent) - 62 + 7;
    EXPECT_TRUE(within(gx.v, x.v, bound));
    EXPECT_TRUE(within(gy.v, y.v, bound));
    // The corner itself answers 0 against its own value.
    EXPECT_EQ(getcoordarel(mid, &rel), mid->hpvalue);
    EXPECT_EQ(rel.mantissax, 0);
    EXPECT_EQ(rel.mantissay, 0);
    // Absolute: the corner of a child of the top, against the top's value.
    AREA* child2 = r->top->child[2];
    EXPECT_EQ(getcoordarel(child2, &rel), r->top->hpvalue);
    MPF ax, want;
    setexact(ax.v, crealHF(rel));
    mpf_add(ax.v, ax.v, r->top->hpvalue->v[0]);
    mpf_set_d(want.v, -7.989964666666666);
    addpow2(want.v, 3);
    EXPECT_EQ(mpf_cmp(ax.v, want.v), 0);
  });
  release(e, r);
}
