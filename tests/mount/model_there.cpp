// What others do at the service.
#include "tests/mount/model.h"

namespace host::mount {

void Model::CreateThere() {
  const int folder = FolderThere();
  Thing thing;
  thing.folder = Dice(4) == 0;
  thing.there = View{folder, Name("there"), thing.folder ? "" : Text(), true};
  thing.id = service.PutUnder(At(folder).id, thing.there->name, thing.there->content,
                              thing.folder ? kFolderType : "text/plain");
  Note("THERE create " + std::to_string(things.size()) + " " + thing.there->name + " in " +
       std::to_string(folder) + " " + Begin(thing.there->content));
  things.push_back(thing);
}

void Model::EditThere() {
  const int thing = FileThere();
  if (thing == kNobody) return;
  View& view = *At(thing).there;
  view.content = Text();
  view.written = true;
  Note("THERE write " + std::to_string(thing) + " " + Begin(view.content));
  service.Write(At(thing).id, view.content);
}

int Model::AnyThere(bool moving) {
  return Pick([&](const Thing& thing) {
    return IsFreeThere(thing) && (!thing.folder || (offline && (!moving || !foldersMoveHere)));
  });
}

void Model::RenameThere() {
  const int thing = AnyThere(false);
  if (thing == kNobody) return;
  At(thing).there->name = Name("there");
  Note("THERE rename " + std::to_string(thing) + " " + At(thing).there->name);
  service.Rename(At(thing).id, At(thing).there->name);
}

void Model::MoveThere() {
  const int thing = AnyThere(true);
  const int folder = FolderThere();
  if (thing == kNobody || IsBelow(things, folder, thing, &Thing::there)) return;
  if (!offline) {
    // Where it arrives, programs must not meet it by a name of theirs.
    At(thing).there->name = "moved " + std::to_string(thing) + ".txt";
    service.Rename(At(thing).id, At(thing).there->name);
  }
  At(thing).there->parent = folder;
  Note("THERE move " + std::to_string(thing) + " to " + std::to_string(folder));
  service.Move(At(thing).id, At(folder).id);
}

void Model::RemoveThere() {
  const int thing = AnyThere(false);
  if (thing == kNobody) return;
  const bool trash = Dice(2) == 0;
  Note((trash ? "THERE trash " : "THERE remove ") + std::to_string(thing));
  if (trash)
    service.Trash(At(thing).id);
  else
    service.Remove(At(thing).id);
  for (int i = 1; i < static_cast<int>(things.size()); ++i)
    if (i != thing && At(i).there && IsBelow(things, i, thing, &Thing::there)) below.push_back(i);
  for (const int i : below) At(i).there.reset();
  below.clear();
  At(thing).there.reset();
}

void Model::OperateThere() {
  switch (Dice(8)) {
    case 0:
    case 1:
      return CreateThere();
    case 2:
    case 3:
    case 4:
      return EditThere();
    case 5:
      return RenameThere();
    case 6:
      return MoveThere();
    default:
      return RemoveThere();
  }
}

}  // namespace host::mount
