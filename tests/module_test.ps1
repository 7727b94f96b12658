# The module under PowerShell, in a folder where the stand-in serves back/ as drive C.
Set-StrictMode -Version Latest
$ErrorActionPreference = 'Stop'
Import-Module (Join-Path $PSScriptRoot '../powershell/ZanRestore')

function Confirm-That([string] $What, [bool] $Condition) { if (-not $Condition) { throw "not so: $What" } }
function Get-TagPath([string] $File) {
    $tag = [IO.File]::ReadAllBytes("${File}:restore_filter_tag")
    [Text.Encoding]::Unicode.GetString($tag, 36, [BitConverter]::ToUInt16($tag, 26))
}

# A list, run twice. A file with the tag of its row continues, any other existing file is refused.
Set-Content taken 'mine'
New-ZanRestore other 'c:\none' | Out-Null
Set-Content list.csv 'File,Backing', 'one,c:\data', "two \u00e9,\\srv\share\data".Replace('\u00e9', [string][char]0xe9),
    'taken,c:\data', 'other,c:\data'
foreach ($run in 1, 2) {
    $whole = @(Import-Csv list.csv | New-ZanRestore -ErrorAction SilentlyContinue -ErrorVariable failed |
            Start-ZanRestore -ConcurrentReads 4 | Wait-ZanRestore)
    Confirm-That "two files are whole at run $run" (($whole | Where-Object IsWhole).Count -eq 2)
    Confirm-That 'progress' ($whole[0].Progress -is [uint64] -and $whole[0].Total -eq (Get-Item back/data).Length -and
        $whole[0].PercentComplete -eq 100)
    $codes = @($failed | Where-Object { $_ -is [Management.Automation.ErrorRecord] } | ForEach-Object { $_.Exception.HResult })
    Confirm-That 'two errors with the HRESULT' ($codes.Count -eq 2 -and ($codes | Select-Object -Unique) -eq 0x80070050)
}
Confirm-That 'the content' ((Get-FileHash one).Hash -eq (Get-FileHash back/data).Hash)
Confirm-That 'a bystander' ((Get-Content taken) -eq 'mine')

# Words reach the tool unchanged, whatever they contain.
foreach ($backing in 'c:\my dir\', 'c:\a"b\\"c d\\', 'c:\[x]*?', "c:\it's `$HOME %PATH%", 'c:\', "c:\$([char]0x4e2d)$([char]::ConvertFromUtf32(0x1f600))") {
    Remove-Item words, './words:restore_filter_tag' -ErrorAction Ignore
    New-ZanRestore words $backing | Out-Null
    Confirm-That "the path $backing" ((Get-TagPath words) -ceq "\??\$backing")
}
New-PSDrive Here FileSystem $PWD | Out-Null
New-Item -ItemType Directory deep | Out-Null
Push-Location deep
foreach ($name in 'c', '-dash', '--ping', 'a[1]*', ' blank "quote"', "$([char]0x4e2d)$([char]::ConvertFromUtf32(0x1f600))", 'Here:/drive') {
    $made = New-ZanRestore $name 'c:\data' -ConcurrentReads 3
    Confirm-That "the file $name" (Test-Path -LiteralPath $made.FullName)
    Confirm-That "ping of $name" ($made | Test-ZanRestore)
}
Pop-Location
Confirm-That 'the PSDrive' (Test-Path drive)

# A filter at its limit refuses starts. The module starts those files when others are whole.
$many = @(1..20 | ForEach-Object { New-ZanRestore "many$_" 'c:\data' } | Start-ZanRestore -ConcurrentReads 1 | Wait-ZanRestore)
Confirm-That 'all of many are whole' (@($many | Where-Object IsWhole).Count -eq 20)
Confirm-That 'an empty one is whole' (@(New-ZanRestore empty 'c:\none' | Start-ZanRestore -ConcurrentReads 1 | Wait-ZanRestore)[0].IsWhole)
New-ZanRestore idle 'c:\data' | Out-Null

# Errors: one per file, with the tool's output and its HRESULT; terminating on request.
foreach ($row in @(
        { New-ZanRestore 'foo.' 'c:\data' }, 'ends in a dot', 0x80070057),
    @({ New-ZanRestore 'foo ' 'c:\data' }, 'ends in a dot or a space', 0x80070057),
    @({ New-ZanRestore new '' }, 'failed without output', 0x80004005),
    @({ New-ZanRestore no/folder 'c:\x' }, 'create local file failed: 3', 0x80070003),
    @({ Start-ZanRestore taken -ConcurrentReads 4 }, "taken: message not sent to port \(0x80070490\)`$", 0x80070490),
    @({ Start-ZanRestore one -ConcurrentReads 0 }, 'message not sent to port', 0x80070057),
    @({ Stop-ZanRestore taken }, 'message not sent to port', 0x80070490),
    @({ Get-ZanRestoreProgress missing }, 'Cannot open local file', 0x80004005),
    @({ Wait-ZanRestore idle -StallTimeout 1 }, 'has made no progress for 1 s; it stands at 0 of 3145733', 0x80004005)) {
    $caught = $null
    try { & $row[0] | Out-Null } catch { $caught = $_ }
    Confirm-That "the error of $($row[0]): $caught" ("$caught" -match $row[1] -and $caught.Exception.HResult -eq $row[2])
}
try { Stop-ZanRestore taken } catch { Confirm-That 'the output' ($_.Exception.Data['Output'] -match 'volume is:[\s\S]*0x80070490\[') }
Confirm-That 'an error leaves no file' (-not (Test-Path new))
Confirm-That 'no ping of a file that is not there' (-not (Test-ZanRestore missing))
New-ZanRestore untouched 'c:\data' -WhatIf
Confirm-That 'WhatIf' (-not (Test-Path untouched))
Confirm-That 'stop says nothing' ($null -eq (Stop-ZanRestore one))
New-Item -ItemType Directory fake | Out-Null
Set-Content fake/zan_restore '#!/bin/sh', 'case $1 in --progress) echo "progress: 0xfffffffffffffffe of 0xffffffffffffffff"; exit ;; esac',
    '[ -e refused ] && exit; : > refused; echo "0x800705aa[a diagnosis]"; exit 1'
chmod +x fake/zan_restore
$env:PATH = "$PWD/fake:/usr/bin:/bin"
Confirm-That 'a start is tried again after 800705aa' (@(Start-ZanRestore one -ConcurrentReads 1 -ErrorAction Stop).Count -eq 1)
Confirm-That 'at most 99 %' ((Get-ZanRestoreProgress one).PercentComplete -eq 99)
$env:PATH = ''
Confirm-That 'a tool that is not there' ("$(try { Test-ZanRestore one } catch { $_ })" -match 'neither beside the module')
