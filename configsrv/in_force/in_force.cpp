// Both parts go the same way: read the files; when they are right, they are in force and their texts
// are remembered for keep(); when they are not, the texts that were kept are read instead, by the
// same rules. These may have become stricter with a new release, so even what was kept may not be good
// any more; then it is as if nothing had been kept, and all mistakes are told.
#include "configsrv/in_force/in_force.h"

#include <unistd.h>

#include <utility>

#include "configsrv/definitions/definition_files.h"

namespace ConfigSrv {
namespace {

using Lines = std::vector<std::string>;

void append(Lines& lines, const Lines& more) {
  lines.insert(lines.end(), more.begin(), more.end());
}

Lines linesOf(const std::vector<Mistake>& mistakes) {
  Lines lines;
  for (const Mistake& mistake : mistakes) lines.push_back(formatMistake(mistake));
  return lines;
}

std::string counted(std::size_t mistakes) {
  return mistakes == 1 ? "a mistake" : std::to_string(mistakes) + " mistakes";
}

// Behind the mistakes themselves.
std::string inForceInstead(const char* what, const Lines& mistakes, const std::string& keptIn) {
  return std::string(what) + counted(mistakes.size()) +
         " (see above): the last good ones, kept in " + keptIn +
         ", stay in force until the files are correct and the service is started anew";
}

std::string beside(const std::string& storeFile, const char* ending) {
  return storeFile.empty() ? std::string() : storeFile + ending;
}

std::string notUsable(const LastGood& kept, const std::string& why) {
  return kept.file() + ": what was good last cannot be used: " + why;
}

void addNotKept(const LastGood& kept, const Base::Status<>& done, Lines& lines) {
  if (done.ok()) return;
  lines.push_back(kept.file() + ": what is good now could not be kept for a day when it is not: " +
                  done.text + "; the service tries again at its next start");
}

}  // namespace

InForceFiles::InForceFiles(Places places)
    : places_(std::move(places)),
      lastDefinitions_(beside(places_.storeFile, ".definitions")),
      lastRoles_(beside(places_.storeFile, ".roles")) {}

InForce InForceFiles::read() {
  InForce inForce{Definitions(), AccessPolicy(::geteuid())};
  goodDefinitions_.reset();
  goodRoles_.reset();
  readDefinitions(inForce);
  if (!places_.rolesFile.empty()) readRoles(inForce);
  return inForce;
}

void InForceFiles::readDefinitions(InForce& inForce) {
  DefinitionFiles files = readDefinitionFiles(places_.definitionsDirs);
  LoadResult loaded = parseDefinitions(files);
  if (!loaded.mistakes.empty()) return useLastGoodDefinitions(inForce, linesOf(loaded.mistakes));
  inForce.definitions = std::move(loaded.definitions);
  goodDefinitions_ = std::move(files.files);
}

void InForceFiles::useLastGoodDefinitions(InForce& inForce, const Lines& mistakes) {
  append(inForce.errors, mistakes);
  LastGood::Kept kept = lastDefinitions_.read();
  if (!kept.why.empty()) inForce.errors.push_back(notUsable(lastDefinitions_, kept.why));
  LoadResult loaded = parseDefinitions({std::move(kept.files), {}});
  append(inForce.errors, linesOf(loaded.mistakes));
  if (!kept.isThere || !loaded.mistakes.empty()) {
    inForce.isComplete = false;
    return;
  }
  inForce.definitions = std::move(loaded.definitions);
  inForce.errors.push_back(
      inForceInstead("the definitions have ", mistakes, lastDefinitions_.file()));
  inForce.standing.lastGoodDefinitions = true;
  append(inForce.standing.mistakes, mistakes);
}

void InForceFiles::readRoles(InForce& inForce) {
  AccessLoadResult loaded = AccessPolicy::load(places_.rolesFile, ::geteuid());
  if (!loaded.mistakes.empty()) return useLastGoodRoles(inForce, linesOf(loaded.mistakes));
  append(inForce.warnings, linesOf(loaded.unknown));
  inForce.access = std::move(loaded.policy);
  if (!loaded.distrust.empty()) return inForce.errors.push_back(loaded.distrust);
  goodRoles_.emplace();
  if (loaded.text) goodRoles_->push_back(std::move(*loaded.text));
}

void InForceFiles::useLastGoodRoles(InForce& inForce, const Lines& mistakes) {
  append(inForce.errors, mistakes);
  const LastGood::Kept kept = lastRoles_.read();
  if (!kept.why.empty()) inForce.errors.push_back(notUsable(lastRoles_, kept.why));
  AccessLoadResult loaded{AccessPolicy(::geteuid())};
  if (!kept.files.empty()) loaded = AccessPolicy::parse(kept.files.front(), ::geteuid());
  append(inForce.errors, linesOf(loaded.mistakes));
  if (!kept.isThere || !loaded.mistakes.empty()) {
    inForce.isComplete = false;
    return;
  }
  append(inForce.warnings, linesOf(loaded.unknown));
  inForce.access = std::move(loaded.policy);
  inForce.errors.push_back(inForceInstead("the table of roles has ", mistakes, lastRoles_.file()));
  inForce.standing.lastGoodRoles = true;
  append(inForce.standing.mistakes, mistakes);
}

std::vector<std::string> InForceFiles::keep() {
  Lines lines;
  if (places_.storeFile.empty()) return lines;
  if (goodDefinitions_)
    addNotKept(lastDefinitions_, lastDefinitions_.keep(*goodDefinitions_), lines);
  if (goodRoles_) addNotKept(lastRoles_, lastRoles_.keep(*goodRoles_), lines);
  goodDefinitions_.reset();
  goodRoles_.reset();
  return lines;
}

}  // namespace ConfigSrv
