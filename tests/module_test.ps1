# The module under PowerShell, in a folder where the stand-in serves back/ as drive C.
Set-StrictMode -Version Latest
$ErrorActionPreference = 'Stop'
Import-Module (Join-Path $PSScriptRoot '../powershell/ZanRestore')

function Confirm-That([string] $What, [bool] $Condition) {
    if (-not $Condition) { throw "not so: $What" }
}
function Get-TagPath([string] $File) {
    $tag = [IO.File]::ReadAllBytes("${File}:restore_filter_tag")
    [Text.Encoding]::Unicode.GetString($tag, 36, [BitConverter]::ToUInt16($tag, 26))
}

# In a function: a script's own scope hides what a module does not see.
function Test-Preferences {
    [CmdletBinding(SupportsShouldProcess)] param([switch] $Verbosely)
    if ($Verbosely) { $VerbosePreference = 'Continue' }
    New-ZanRestore deployed 'c:\data' 4>&1
    $WhatIfPreference = $false
    $ErrorActionPreference = 'SilentlyContinue'
    New-ZanRestore back/data 'c:\data' # an error, which does not end the function
    Stop-ZanRestore back/data -WhatIf
    'the end'
}
Confirm-That 'WhatIf and ErrorAction of a function' ((Test-Preferences -WhatIf) -eq 'the end')
Confirm-That 'no file with WhatIf' (-not (Test-Path deployed))
Test-Preferences | Out-Null
Confirm-That 'Verbose of a function' ("$(Test-Preferences -Verbosely)" -match 'already has its tag')

# A list, run twice. A file with the tag of its row continues, any other existing file is refused.
Set-Content taken 'mine'
New-ZanRestore other 'c:\none' | Out-Null
Set-Content list.csv 'File,Backing', 'one,c:\data', "two $([char]0xe9),\\srv\share\data",
    'taken,c:\data', 'other,c:\data', ',c:\data'
foreach ($run in 1, 2) {
    $whole = @(Import-Csv list.csv |
            New-ZanRestore -ErrorAction SilentlyContinue -ErrorVariable failed |
            Start-ZanRestore -ConcurrentReads 4 | Wait-ZanRestore)
    Confirm-That "two files are whole at run $run" (($whole | Where-Object IsWhole).Count -eq 2)
    Confirm-That 'progress' ($whole[0].Progress -is [uint64] -and
        $whole[0].Total -eq (Get-Item back/data).Length -and $whole[0].PercentComplete -eq 100)
    $codes = @($failed | ForEach-Object { $_.CategoryInfo.Category })
    Confirm-That "three errors: $codes" (
        "$codes" -eq 'ResourceExists ResourceExists InvalidArgument')
    Confirm-That 'the HRESULT' ($failed[0].Exception.HResult -eq 0x80070050)
}
Confirm-That 'the content' ((Get-FileHash one).Hash -eq (Get-FileHash back/data).Hash)
Confirm-That 'a bystander' ((Get-Content taken) -eq 'mine')
Confirm-That 'a table' (($whole[0] | Out-String) -match 'Path +PercentComplete +IsWhole')

# Words reach the tool unchanged, whatever they contain.
foreach ($backing in 'c:\my dir\', 'c:\a"b\\"c d\\', 'c:\[x]*?', "c:\it's `$HOME %PATH%", 'c:\',
    "c:\$([char]0x4e2d)$([char]::ConvertFromUtf32(0x1f600))") {
    Remove-Item words, './words:restore_filter_tag' -ErrorAction Ignore
    New-ZanRestore words $backing | Out-Null
    Confirm-That "the path $backing" ((Get-TagPath words) -ceq "\??\$backing")
}
New-PSDrive Here FileSystem $PWD | Out-Null
New-Item -ItemType Directory deep | Out-Null
Push-Location deep
foreach ($name in 'c', '-dash', '--ping', 'a[1]*', ' blank "quote"', 'Here:/drive',
    "$([char]0x4e2d)$([char]::ConvertFromUtf32(0x1f600))") {
    $made = New-ZanRestore $name 'c:\data' -ConcurrentReads 3
    Confirm-That "the file $name" (Test-Path -LiteralPath $made.FullName)
    Confirm-That "ping of $name" ($made | Test-ZanRestore)
}
Confirm-That 'several paths' (@(Test-ZanRestore c, '-dash').Count -eq 2)
Pop-Location
Confirm-That 'the PSDrive' (Test-Path drive)

# A filter at its limit refuses starts. The module starts those files when others are whole.
$many = @(1..20 | ForEach-Object { New-ZanRestore "many$_" 'c:\data' } |
        Start-ZanRestore -ConcurrentReads 1 | Wait-ZanRestore)
Confirm-That 'all of many are whole' (@($many | Where-Object IsWhole).Count -eq 20)
Confirm-That 'an empty one is whole' (@(New-ZanRestore empty 'c:\none' |
            Start-ZanRestore -ConcurrentReads 1 | Wait-ZanRestore)[0].IsWhole)
New-ZanRestore idle 'c:\data' | Out-Null
New-ZanRestore gone 'c:\data' | Remove-Item # its tag is left over

# Errors: one per file, with the tool's output and its HRESULT; terminating on request.
foreach ($row in @(
        { New-ZanRestore 'foo.' 'c:\data' }, 'ends in a dot', 0x80070057),
    @({ New-ZanRestore 'foo ' 'c:\data' }, 'ends in a dot or a space', 0x80070057),
    @({ New-ZanRestore 'no:f' 'c:\data' }, "^Cannot find drive. .* 'no'", 0x80070057),
    @({ New-ZanRestore new '' }, 'failed without output', 0x80004005),
    @({ New-ZanRestore no/folder 'c:\x' }, 'create local file failed: 3', 0x80070003),
    @({ New-ZanRestore gone 'c:\data' }, 'create tag stream failed: 50', 0x80070050),
    @({ Start-ZanRestore taken -ConcurrentReads 4 },
        "taken: message not sent to port \(0x80070490\)`$", 0x80070490),
    @({ Start-ZanRestore one -ConcurrentReads 0 }, 'message not sent to port', 0x80070057),
    @({ Stop-ZanRestore taken }, 'message not sent to port', 0x80070490),
    @({ Get-ZanRestoreProgress missing }, 'Cannot open local file', 0x80004005),
    @({ Get-ZanRestoreProgress one | ForEach-Object { throw 'mine' } }, '^mine', 0x80131501),
    @({ Wait-ZanRestore one | ForEach-Object { throw 'mine' } }, '^mine', 0x80131501),
    @({ Start-ZanRestore one 1 | ForEach-Object { throw 'mine' } }, '^mine', 0x80131501),
    @({ Wait-ZanRestore idle -StallTimeout 1 },
        'has made no progress for 1 s; it stands at 0 of 3145733', 0x80004005)) {
    $caught = $null
    try { & $row[0] | Out-Null } catch { $caught = $_ }
    Confirm-That "the error of $($row[0]): $caught, $($caught.Exception.HResult)" (
        "$caught" -match $row[1] -and $caught.Exception.HResult -eq $row[2])
}
try { Stop-ZanRestore taken } catch {
    Confirm-That 'the output' ($_.Exception.Data['Output'] -match 'volume is:[\s\S]*0x80070490\[')
}
Confirm-That 'an error leaves no file' (-not (Test-Path new))
Confirm-That 'no ping of a file that is not there' (-not (Test-ZanRestore missing))
Confirm-That 'no progress of it' (@(Wait-ZanRestore missing -ErrorAction Ignore).Count -eq 0)
Confirm-That 'stop says nothing' ($null -eq (Stop-ZanRestore one))

# A tool that answers a start as `refusal` says, once, and a query as `answer` says. It never takes
# `late`.
New-Item -ItemType Directory fake | Out-Null
Set-Content fake/zan_restore '#!/bin/sh',
    'case $* in --progress*) cat answer; exit $(cat status);; esac',
    'case $* in *late) echo "0x80070004[l"; exit 1;; esac',
    '[ -e refused ] && exit; : > refused; cat refusal; exit 1'
chmod +x fake/zan_restore
$env:PATH = "$PWD/fake:/usr/bin:/bin"
$busy = '0x800700aa[busy'
$most = 'progress: 0xfffffffffffffffe of 0xffffffffffffffff'
foreach ($row in @('0x800705aa[a', $most, 0, ''), @($busy, $most, 0, ''),
    @($busy, $busy, 1, 'busy'),
    @("volume is: V`nno filter instance found", $most, 0, '^.*one: no filter instance found ')) {
    Remove-Item refused -ErrorAction Ignore
    Set-Content refusal $row[0]
    Set-Content answer $row[1]
    Set-Content status $row[2]
    Start-ZanRestore one -ConcurrentReads 1 -ErrorAction SilentlyContinue -ErrorVariable failed |
        Out-Null
    Confirm-That "a start after '$($row[0])': $failed" (
        [bool] $row[3] -eq [bool] $failed -and "$failed" -match $row[3])
}
Confirm-That 'at most 99 %' ((Get-ZanRestoreProgress one).PercentComplete -eq 99)
Start-ZanRestore one, late -ConcurrentReads 1 -StallTimeout 1 -ErrorVariable failed `
    -ErrorAction SilentlyContinue | Out-Null
Confirm-That 'nobody waits for a stalled file' ("$failed" -match 'late: 0x80070004')
$env:PATH = ''
Confirm-That 'a tool that is not there' (
    "$(try { Test-ZanRestore one } catch { $_ })" -match 'neither beside the module')
