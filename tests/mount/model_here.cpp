// What programs do on the mount.
#include <fcntl.h>

#include "tests/mount/model.h"

namespace host::mount {

void Model::WriteHere(int thing, OpenFile& file, const std::string& text, size_t offset) {
  const ssize_t written =
      drive->files.Write(file, {text.data(), text.size()}, static_cast<int64_t>(offset));
  if (written < 0 && offline) return;  // its bytes are not here
  ASSERT_EQ(written, static_cast<ssize_t>(text.size()));
  View& view = *At(thing).here;
  view.written = true;
  if (view.content.size() < offset + text.size()) view.content.resize(offset + text.size());
  view.content.replace(offset, text.size(), text);
  Note("write " + std::to_string(thing) + " " + Begin(view.content));
}

void Model::Committed(int thing) {
  At(thing).committed = At(thing).here ? At(thing).here->content : "";
  At(thing).everCommitted = true;
}

void Model::Leave(Handle handle) {
  if (Dice(3) != 0) return Close(std::move(handle));
  if (Dice(2) == 0) {
    ASSERT_EQ(drive->files.Fsync(*handle.file), 0);
    Committed(handle.thing);
  }
  handles.push_back(std::move(handle));
}

void Model::Close(Handle handle) {
  ASSERT_EQ(drive->files.Flush(*handle.file), 0);
  Committed(handle.thing);
  drive->files.Release(std::move(handle.file));
}

void Model::CloseSome(bool all) {
  while (!handles.empty() && (all || Dice(2) == 0)) {
    Handle handle = std::move(handles.back());
    handles.pop_back();
    Close(std::move(handle));
  }
}

void Model::CreateFile() {
  const int folder = FolderHere();
  const std::string name = Name("here");
  if (ChildHere(folder, name) != kNobody) return;
  Item item;
  Handle handle;
  const int error =
      drive->files.Create(At(folder).ino, name, O_CREAT | O_EXCL | O_WRONLY, item, handle.file);
  ASSERT_EQ(error, 0) << name;
  handle.thing = static_cast<int>(things.size());
  Thing thing;
  thing.ino = item.ino;
  thing.shown = name;
  thing.here = View{folder, name, "", true};
  thing.everCommitted = false;
  things.push_back(thing);
  Note("create " + std::to_string(handle.thing) + " " + name + " in " + std::to_string(folder));
  if (Dice(8) != 0) WriteHere(handle.thing, *handle.file, Text(), 0);
  Leave(std::move(handle));
}

void Model::EditFile() {
  const int thing = FileHere();
  if (thing == kNobody) return;
  Handle handle;
  handle.thing = thing;
  const bool fresh = Dice(2) == 0;
  ASSERT_EQ(drive->files.Open(At(thing).ino, O_RDWR | (fresh ? O_TRUNC : 0), handle.file), 0);
  std::string& content = At(thing).here->content;
  if (fresh) content.clear();
  const int size = static_cast<int>(content.size());
  WriteHere(thing, *handle.file, Text(), static_cast<size_t>(Dice(2) == 0 ? size : Dice(size + 1)));
  Leave(std::move(handle));
}

void Model::EditThroughHandle() {
  if (handles.empty()) return;
  Handle& handle = handles[static_cast<size_t>(Dice(static_cast<int>(handles.size())))];
  if (At(handle.thing).here) {
    if (!IsFreeHere(At(handle.thing))) return;
    const size_t size = At(handle.thing).here->content.size();
    return WriteHere(handle.thing, *handle.file, Text(), size);
  }
  drive->files.Write(*handle.file, {"lost", 4}, 0);  // its name is gone
}

void Model::Cut() {
  const int thing = FileHere();
  if (thing == kNobody) return;
  std::string& content = At(thing).here->content;
  const auto size = static_cast<size_t>(Dice(static_cast<int>(content.size()) + 20));
  const int error = drive->files.Truncate(At(thing).ino, static_cast<int64_t>(size));
  if (error != 0 && offline) return;
  ASSERT_EQ(error, 0);
  content.resize(size);
  Note("cut " + std::to_string(thing) + " to " + std::to_string(size));
  At(thing).here->written = true;
  if (!IsOpen(At(thing))) Committed(thing);
}

void Model::MakeFolderHere() {
  const int folder = FolderHere();
  const std::string name = Name("folder here");
  if (ChildHere(folder, name) != kNobody) return;
  Item item;
  const int error = drive->tree.MakeFolder(At(folder).ino, name, item);
  if (error == EEXIST && !offline) return;  // others have taken the name
  ASSERT_EQ(error, 0) << name;
  Thing thing;
  thing.folder = true;
  thing.ino = item.ino;
  thing.shown = name;
  thing.here = thing.made = View{folder, name, "", false};
  Note("mkdir " + std::to_string(things.size()) + " " + name + " in " + std::to_string(folder));
  things.push_back(thing);
}

void Model::RenameHere() {
  const int thing = Pick([&](const Thing& candidate) {
    return IsFreeHere(candidate) && (!candidate.folder || foldersMoveHere);
  });
  if (thing == kNobody) return;
  int folder = Dice(2) == 0 ? At(thing).here->parent : FolderHere();
  std::string name = Name("here");
  if (const int other = FileHere(); Dice(2) == 0 && other != kNobody) {
    folder = At(other).here->parent;
    name = At(other).shown;
  }
  const int over = ChildHere(folder, name);
  if (over == thing || IsBelow(things, folder, thing, &Thing::here)) return;
  if (over != kNobody && (At(over).folder != At(thing).folder || !IsFreeHere(At(over)) ||
                          (At(over).folder && !IsEmptyHere(over))))
    return;
  View& view = *At(thing).here;
  const int error =
      drive->tree.Rename(At(view.parent).ino, At(thing).shown, At(folder).ino, name, 0);
  if (error == ENOTEMPTY && !offline) return;  // others have put something into it
  ASSERT_EQ(error, 0) << At(thing).shown << " -> " << name;
  Note("rename " + std::to_string(thing) + " to " + name + " in " + std::to_string(folder) +
       (over == kNobody ? "" : " over " + std::to_string(over)));
  if (over != kNobody) {
    At(over).here.reset();
    std::vector<int>& replaced = At(thing).over;
    replaced.insert(replaced.end(), At(over).over.begin(), At(over).over.end());
    replaced.push_back(over);
  }
  if (At(thing).shown != name) view.name = name;
  At(thing).shown = name;
  view.parent = folder;
  view.moved = true;
}

void Model::RemoveHere() {
  const int thing = Pick([&](const Thing& candidate) { return IsFreeHere(candidate); });
  if (thing == kNobody || (At(thing).folder && !IsEmptyHere(thing))) return;
  const Inode folder = At(At(thing).here->parent).ino;
  const int error = At(thing).folder ? drive->tree.RemoveFolder(folder, At(thing).shown)
                                     : drive->tree.RemoveFile(folder, At(thing).shown);
  if (error == ENOTEMPTY && !offline) return;  // others have put something into it
  ASSERT_EQ(error, 0) << At(thing).shown;
  Note("remove " + std::to_string(thing) + " " + At(thing).shown);
  At(thing).here.reset();
}

void Model::SetTimeHere() {
  const int thing = FileHere();
  if (thing == kNobody) return;
  const int64_t time = int64_t{1'000'000'000} * Dice(1'700'000'000);
  ASSERT_EQ(drive->files.SetTime(At(thing).ino, time), 0);
}

void Model::ReadHere() {
  const int thing = FileHere();
  if (thing == kNobody) return;
  const std::string read = Slurp(At(thing).ino);
  const bool fetched = !offline || !read.starts_with("(error");
  EXPECT_TRUE(!fetched || read == At(thing).here->content) << At(thing).shown;
}

std::string Model::Slurp(Inode ino) {
  Item item;
  std::unique_ptr<OpenFile> file;
  if (drive->tree.Get(ino, item) != 0 || drive->files.Open(ino, O_RDONLY, file) != 0)
    return "(unopened)";
  drive->files.Overlay(item);
  std::string content(static_cast<size_t>(item.size), '\0');
  const ssize_t count = drive->files.Read(*file, content, 0);
  drive->files.Release(std::move(file));
  return count == item.size ? content : "(error " + std::to_string(count) + ")";
}

void Model::OperateHere() {
  const bool many = things.size() > 40;
  switch (Dice(20)) {
    case 0:
    case 1:
    case 2:
      return many ? RemoveHere() : CreateFile();
    case 3:
    case 4:
    case 5:
      return EditFile();
    case 6:
      return EditThroughHandle();
    case 7:
      return Cut();
    case 8:
      return MakeFolderHere();
    case 9:
    case 10:
    case 11:
    case 12:
    case 13:
      return RenameHere();
    case 14:
    case 15:
      return RemoveHere();
    case 16:
      return SetTimeHere();
    case 17:
      return ReadHere();
    default:
      return CloseSome(false);
  }
}

}  // namespace host::mount
